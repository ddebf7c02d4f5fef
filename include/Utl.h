// The whole of utl in one include: containers, bit streams and memory helpers.
#ifndef UTL_H
#define UTL_H

#include "UtlArray.h"
#include "UtlBitStream.h"
#include "UtlMemory.h"
#include "UtlQueue.h"

#endif  // UTL_H
