#include <dirent.h>

#include <cstdlib>

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

void CountDescriptors(LiveResources& live) {
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr) return;
    while (const dirent* const entry = readdir(directory)) {
        if (entry->d_name[0] == '.') continue;
        Count(KindOfDescriptor(std::atoi(entry->d_name)), live.heapDescriptors, live.graphicDescriptors);
    }
    closedir(directory);
}

void CountMappings(LiveResources& live) {
    MapsReader maps;
    for (MappedRange range; maps.Next(range);) {
        Count(KindOfPath(range.path), live.heapMappings, live.graphicMappings);
    }
}

}  // namespace

LiveResources CountLive() {
    LiveResources live{};
    live.graphicBuffers = CountGraphicBuffers();
    CountDescriptors(live);
    CountMappings(live);
    return live;
}

}  // namespace hostdevice
