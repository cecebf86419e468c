#ifndef HOSTDEVICE_CAMXSETTINGSMANAGER_H
#define HOSTDEVICE_CAMXSETTINGSMANAGER_H

/// @file
/// The camera framework's settings.

#include <cstddef>
#include <cstdint>

#include "hostdevice/export.h"

/// The camera framework's namespace.
namespace CamX {

/// The camera framework's settings, as far as this device has any: one switch.
struct StaticSettings {
    uint8_t otherSettings[15];  ///< Keeps the switch in its place; all zeros.
    bool enableOfflineLog;      ///< Whether off-line logs are wanted where no property says so.
};

// Clients of the framework read the switch by its position.
static_assert(offsetof(StaticSettings, enableOfflineLog) == 15 && sizeof(bool) == 1);

/// Gives out the settings; one per process, never destroyed. Safe from any thread, but see
/// hostdevice::SetOfflineLogSwitch, which changes them.
class HOSTDEVICE_EXPORT SettingsManager {
public:
    /// Never null. The framework's argument, settings to start from, means nothing here.
    static SettingsManager* GetInstance(const void* pStaticSettings);

    /// Never null, and the same record at every call.
    const StaticSettings* GetStaticSettings() const;

    SettingsManager(const SettingsManager&) = delete;
    SettingsManager& operator=(const SettingsManager&) = delete;

private:
    SettingsManager() = default;
};

}  // namespace CamX

#endif  // HOSTDEVICE_CAMXSETTINGSMANAGER_H
