// An application's binary log sink. It records what it receives in the environment, so that the
// check program can look without referring to this file: a reference would pull the sink in by
// itself and hide a link that misses it.
#include <cstdio>
#include <cstdlib>

void BinaryLogWrite(int channel, const char* data, unsigned int length) {
    char record[512];
    std::snprintf(record, sizeof record, "%d:%.*s", channel, static_cast<int>(length), data);
    setenv("UTL_LINK_CHECK_RECEIVED", record, 1);
}
