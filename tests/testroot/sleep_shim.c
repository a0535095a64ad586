/* Preloaded into every dynamically linked program of the test root: sleep() and usleep()
 * append the requested time in microseconds (one decimal number per line) to /testlog/sleeps
 * and return at once, so tests run the daemon's waits in no time and can check them.
 *
 * SLEEP_SHIM_DIVISOR=N (N > 0) also waits the requested time divided by N for real, so that a
 * whole-program test's loops keep a pace instead of spinning.
 *
 * nanosleep and clock_nanosleep are left alone: tests poll with real time through them. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

static void record_sleep(unsigned long long microseconds)
{
    char line[32];
    int length = snprintf(line, sizeof line, "%llu\n", microseconds);
    int fd = open("/testlog/sleeps", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    /* One write: lines of processes that sleep at the same time never mix. */
    if (write(fd, line, (size_t)length) < 0) {
        /* Nothing to do: a lost record shows in the test that looks for it. */
    }
    close(fd);
}

static void wait_fraction(unsigned long long microseconds)
{
    const char *text = getenv("SLEEP_SHIM_DIVISOR");
    if (text == NULL || *text == '\0')
        return;
    char *end = NULL;
    unsigned long long divisor = strtoull(text, &end, 10);
    if (*end != '\0' || divisor == 0)
        return;
    unsigned long long nanoseconds = microseconds * 1000ULL / divisor;
    struct timespec wait = {(time_t)(nanoseconds / 1000000000ULL),
                            (long)(nanoseconds % 1000000000ULL)};
    /* A signal ends the wait early, as it ends a real sleep. */
    nanosleep(&wait, NULL);
}

unsigned int sleep(unsigned int seconds)
{
    int saved = errno;
    unsigned long long microseconds = (unsigned long long)seconds * 1000000ULL;
    record_sleep(microseconds);
    wait_fraction(microseconds);
    errno = saved;
    return 0;
}

int usleep(useconds_t microseconds)
{
    int saved = errno;
    record_sleep(microseconds);
    wait_fraction(microseconds);
    errno = saved;
    return 0;
}
