#include "internal.h"
#include "maps.h"
#include "memory.h"

namespace hostdevice {
namespace {

void Count(MemoryKind kind, uint64_t& heap, uint64_t& graphic) {
    if (kind == MemoryKind::kGraphic) {
        ++graphic;
    } else if (kind != MemoryKind::kOther) {
        ++heap;
    }
}

}  // namespace

LiveResources CountLive() {
    LiveResources live{};
    live.graphicBuffers = CountGraphicBuffers();
    ForEachDescriptor([&](int fd) { Count(KindOfDescriptor(fd), live.heapDescriptors, live.graphicDescriptors); });
    MapsReader maps;
    for (MappedRange range; maps.Next(range);) {
        Count(KindOfPath(range.path), live.heapMappings, live.graphicMappings);
    }
    return live;
}

}  // namespace hostdevice
