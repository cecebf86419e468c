// The sample node's report on a desktop, which uses the emulated device's controls.

#include <hostdevice/hostdevice.h>

#include <cstdio>

void ReportDevice();

void ReportDevice() {
    std::printf("heap          %s\n", hostdevice::HeapName());
    const hostdevice::LiveResources live = hostdevice::CountLive();
    std::printf("left          %llu heap descriptors, %llu heap mappings, %llu graphic buffers\n",
                static_cast<unsigned long long>(live.heapDescriptors),
                static_cast<unsigned long long>(live.heapMappings),
                static_cast<unsigned long long>(live.graphicBuffers));
}
