#include "UtlSmartPointer.h"

#include <unistd.h>

#include <cinttypes>
#include <new>

#include "UtlLibraryLog.h"

namespace utl {

RefCounter::~RefCounter() = default;

RefCounter* GetRefCounterInterface::getRefCounter(const GetRefCounterInterface& holder) const {
    return holder.actGetRefCounter();
}

namespace detail {

RefCounter* newRefCounter(const char* where) {
    RefCounter* counter = new (std::nothrow) RefCounter;
    if (counter == nullptr) {
        UTL_LOG(LEVEL_ERROR, "new RefCounter failed in %s", where);
        return nullptr;
    }
    counter->increment();
    return counter;
}

void logNegativeCount(int32_t count, const char* holderClass) {
    UTL_LOG(LEVEL_ERROR, "lRefCount(%" PRId32 ") < 0 in %s::release()", count, holderClass);
}

}  // namespace detail

void DestructCloseFile::operator()(int fd) const {
    if (fd > 0) {
        fsync(fd);
        close(fd);
    }
}

}  // namespace utl
