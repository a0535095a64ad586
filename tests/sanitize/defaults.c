/* The sanitizer build's settings (FAILOVER_SANITIZE), compiled into every program so that a
 * test run by hand needs no environment; ASAN_OPTIONS and UBSAN_OPTIONS still add to them.
 *
 * - verify_asan_link_order=0: the test root preloads the sleep shim (built without
 *   sanitizers) ahead of the ASan runtime; harmless, the shim only wraps sleep() and usleep().
 * - detect_leaks=0: LeakSanitizer lists the threads of the process through /proc/PID/task,
 *   and the root has a real /proc/self only ("Can't open /proc/61/task for reading", then a
 *   fatal error at every exit). Leaks are looked for by the fuzz targets (make fuzz), which
 *   run outside the root. */
const char *__asan_default_options(void);
const char *__ubsan_default_options(void);

const char *__asan_default_options(void) {
    return "verify_asan_link_order=0:detect_leaks=0:strict_string_checks=1:"
           "detect_stack_use_after_return=1:check_initialization_order=1";
}

const char *__ubsan_default_options(void) { return "print_stacktrace=1:halt_on_error=1"; }
