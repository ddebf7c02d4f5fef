// The whole of utl in one include.
#ifndef UTL_H
#define UTL_H

#include "UtlArray.h"
#include "UtlBitStream.h"
#include "UtlCharAttrib.h"
#include "UtlCharConvert.h"
#include "UtlMemory.h"
#include "UtlQueue.h"
#include "UtlString.h"
#include "UtlSync.h"

#endif  // UTL_H
