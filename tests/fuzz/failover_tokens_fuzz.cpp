// The controller's FIFO token reader: any read batch splits into non-empty tokens free of ":".

#include "failover/failover_conn.h"
#include "fuzz_support.h"

int fuzz::one(std::string_view input) {
    std::string batch(input);  // the reader terminates what it read
    std::string_view terminated(batch.c_str());
    size_t kept = 0;
    for (std::string_view token : split_failover_tokens(batch)) {
        fuzz::check(!token.empty(), "empty token");
        fuzz::check(token.find(':') == std::string_view::npos, "separator inside a token");
        fuzz::check(token.data() >= terminated.data() &&
                        token.data() + token.size() <= terminated.data() + terminated.size(),
                    "token outside the batch");
        kept += token.size();
    }
    size_t separators = 0;
    for (char c : terminated) separators += c == ':';
    fuzz::check(kept + separators == terminated.size(), "characters lost or repeated");
    return 0;
}
