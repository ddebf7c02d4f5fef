// The whole of utl in one include.
#ifndef UTL_H
#define UTL_H

#include "QVStorage.h"
#include "UtlArray.h"
#include "UtlBitStream.h"
#include "UtlCharAttrib.h"
#include "UtlCharConvert.h"
#include "UtlFile.h"
#include "UtlLog.h"
#include "UtlMemory.h"
#include "UtlMemoryPool.h"
#include "UtlMsg.h"
#include "UtlMsgDrivenSharedThread.h"
#include "UtlMsgDrivenThread.h"
#include "UtlQueue.h"
#include "UtlRiffFile.h"
#include "UtlSecureFile.h"
#include "UtlSharedTimer.h"
#include "UtlSmartPointer.h"
#include "UtlString.h"
#include "UtlSync.h"
#include "UtlThreadManager.h"
#include "UtlThreadWatchdog.h"
#include "UtlTimeCounter.h"
#include "UtlTimepiece.h"
#include "UtlWaveFile.h"

#endif  // UTL_H
