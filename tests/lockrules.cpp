// Breaks the lock rules of the public members. Clang compiles it with -verify, which requires each error and no other.

#include "logging/zytofflinelog.h"
#include "utilities/zytutil.h"
#include "zytbuffermanager/zytbuffermanager.h"

using Pool = ZYTBufferPool;

void WithoutTheLock(Pool& pool, ZYTThreadPool& workers, ZYTOfflineLog& log) {
    Pool::m_bufferPoolClientNum = 0;        // expected-error {{requires holding mutex 'm_bufferPoolClientNumLock'}}
    Pool::m_freeBufferList[0].clear();      // expected-error {{requires holding mutex 'm_freeBufferListLock'}}
    Pool::m_freeGrallocBufferList.clear();  // expected-error {{requires holding mutex 'm_freeBufferListLock'}}
    Pool::m_busyBufferList.clear();         // expected-error {{requires holding mutex 'm_busyBufferListLock'}}
    Pool::m_busyGrallocBufferList.clear();  // expected-error {{requires holding mutex 'm_busyBufferListLock'}}
    workers.m_threadIdList.clear();         // expected-error {{requires holding mutex 'workers.m_threadListLock'}}
    workers.m_taskList.clear();             // expected-error {{requires holding mutex 'workers.m_taskListLock'}}
    log.m_logFileList.clear();              // expected-error {{requires holding mutex 'log.m_logFileListLock'}}
    log.m_curLogFileSize = 0;               // expected-error {{requires holding mutex 'log.m_logFileLock'}}
    log.m_curLogFileName.clear();           // expected-error {{requires holding mutex 'log.m_logFileLock'}}
    ZYTUtil::m_productInfo = {};            // expected-error {{requires holding mutex 'm_productInfoLock'}}
    ZYTUtil::m_isProductInfoInit = false;   // expected-error {{requires holding mutex 'm_productInfoLock'}}
    pool.AllocBuffer(0, 0, 1, ZYT_BUFFER_TYPE_MALLOC);  // expected-error {{requires holding mutex}}
}

void WithTheLocks(Pool& pool, ZYTBufferManager& manager, ZYTThreadPool& workers, ZYTOfflineLog& log) {
    zyt::Lock freeBuffers(Pool::m_freeBufferListLock), tasks(workers.m_taskListLock);
    zyt::Lock file(log.m_logFileLock), product(ZYTUtil::m_productInfoLock);
    pool.PutBufferToPool(nullptr);     // expected-error {{while mutex 'm_freeBufferListLock' is held}}
    manager.FreeBuffer(nullptr);       // expected-error {{while mutex 'm_freeBufferListLock' is held}}
    workers.FlushTask();               // expected-error {{while mutex 'workers.m_taskListLock' is held}}
    log.FlushLogPoolToFile2(nullptr);  // expected-error {{while mutex 'log.m_logFileLock' is held}}
    ZYTUtil::GetProductInfo();         // expected-error {{while mutex 'm_productInfoLock' is held}}
}
