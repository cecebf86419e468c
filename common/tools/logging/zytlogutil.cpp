#include "logging/zytlogutil.h"

#include <cutils/properties.h>

namespace {

int LevelFromProperty() { return property_get_int32("persist.vendor.camera.zytloglevel", ZYTNodeLogLevel); }

}  // namespace

int ZYTNodeLogLevel = 1;

int ZYTLogUtil::m_level = LevelFromProperty();
int ZYTLogUtil::m_previewLevel = LevelFromProperty();
int ZYTLogUtil::m_captureLevel = LevelFromProperty();
