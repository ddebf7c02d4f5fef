#include "UtlQueue.h"

namespace utl {

// The byte queues of the message loops; compiled once here so that users of the header share one
// copy of every member that the compiler does not inline.
template class RingArray<unsigned char>;
template class Queue<unsigned char>;

}  // namespace utl
