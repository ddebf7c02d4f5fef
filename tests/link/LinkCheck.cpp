// Logs one error line; succeeds only when the application's own BinaryLogWrite, linked in the way
// under test, received it on channel 3.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "UtlLog.h"

int main() {
    applog(-2, 1, "link check %d", 7);
    const char* received = std::getenv("UTL_LINK_CHECK_RECEIVED");
    if (received == nullptr || std::strncmp(received, "3:", 2) != 0 ||
        std::strstr(received, "<UTIL> ERR: link check 7\r\n") == nullptr) {
        std::fprintf(stderr, "the application's BinaryLogWrite did not get the line (got: %s)\n",
                     received != nullptr ? received : "nothing");
        return 1;
    }
    return 0;
}
