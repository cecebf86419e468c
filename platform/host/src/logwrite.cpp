#include <android/log.h>

#include "internal.h"

int __android_log_write(int prio, const char* tag, const char* text) {
    hostdevice::DeliverLog(prio, tag, text);
    return 1;
}
