#include "camxsettingsmanager.h"

#include "hostdevice/hostdevice.h"

namespace {

CamX::StaticSettings g_settings{};

}  // namespace

namespace CamX {

SettingsManager* SettingsManager::GetInstance(const void* /*pStaticSettings*/) {
    static SettingsManager manager;
    return &manager;
}

const StaticSettings* SettingsManager::GetStaticSettings() const { return &g_settings; }

}  // namespace CamX

namespace hostdevice {

void SetOfflineLogSwitch(bool on) { g_settings.enableOfflineLog = on; }

}  // namespace hostdevice
