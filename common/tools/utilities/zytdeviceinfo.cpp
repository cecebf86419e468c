#include <cutils/properties.h>

#include <cstring>

#include "utilities/zytutil.h"

namespace {

struct NamedValue {
    const char* name;
    uint32_t value;
};

constexpr NamedValue kRegions[] = {
    {"GLOBAL", ZYT_REGION_GLOBAL}, {"global", ZYT_REGION_GLOBAL}, {"CN", ZYT_REGION_CN},
    {"cn", ZYT_REGION_CN},         {"IN", ZYT_REGION_IN},         {"in", ZYT_REGION_IN},
};

constexpr NamedValue kDevices[] = {
    {"kivo", ZYT_DEVICE_KIVO},         {"datu", ZYT_DEVICE_DATU},       {"lembrova", ZYT_DEVICE_LEMBROVA},
    {"ovanel", ZYT_DEVICE_OVANEL},     {"tressim", ZYT_DEVICE_TRESSIM}, {"gavrilot", ZYT_DEVICE_GAVRILOT},
    {"plesk", ZYT_DEVICE_PLESK},       {"ziroa", ZYT_DEVICE_ZIROA},     {"brisko", ZYT_DEVICE_BRISKO},
    {"yoma", ZYT_DEVICE_YOMA},         {"caskeln", ZYT_DEVICE_CASKELN}, {"drovatin", ZYT_DEVICE_DROVATIN},
    {"fenraluk", ZYT_DEVICE_FENRALUK}, {"seba", ZYT_DEVICE_SEBA},       {"zad", ZYT_DEVICE_ZAD},
};

class Property {
public:
    explicit Property(const char* key) { property_get(key, m_value, ""); }

    bool Is(const char* value) const { return std::strcmp(m_value, value) == 0; }

    template <size_t N>
    uint32_t Among(const NamedValue (&values)[N], uint32_t other) const {
        for (const NamedValue& candidate : values) {
            if (Is(candidate.name)) return candidate.value;
        }
        return other;
    }

private:
    char m_value[512] = {};
};

}  // namespace

ZYTProductInfo ZYTUtil::GetProductInfo() {
    zyt::Lock lock(m_productInfoLock);
    if (!m_isProductInfoInit) {
        ZYTProductInfo info{};
        info.region = Property("ro.vexo.build.region").Among(kRegions, ZYT_REGION_CN);
        info.cameraConfigIsZero = Property("ro.boot.camera.config").Is("0") ? 1 : 0;
        info.device = Property("ro.product.device").Among(kDevices, ZYT_DEVICE_OTHER);
        m_isProductInfoInit = true;
        m_productInfo = info;
    }
    return m_productInfo;
}
