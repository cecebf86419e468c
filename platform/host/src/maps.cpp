#include "maps.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace hostdevice {

MapsReader::MapsReader() : m_fd(open("/proc/self/maps", O_RDONLY | O_CLOEXEC)) {}

MapsReader::~MapsReader() {
    if (m_fd >= 0) close(m_fd);
}

bool MapsReader::ReadLine() {
    for (size_t length = 0;;) {
        if (m_used == m_filled) {
            const ssize_t size = read(m_fd, m_block, sizeof m_block);
            if (size <= 0) return false;
            m_used = 0;
            m_filled = static_cast<size_t>(size);
        }
        const char next = m_block[m_used++];
        m_line[length] = '\0';
        if (next == '\n') return true;
        if (length < sizeof m_line - 1) m_line[length++] = next;
    }
}

// A line is "begin-end perms offset major:minor inode   path"; all numbers but the inode are hexadecimal.
bool MapsReader::Next(MappedRange& range) {
    if (!ReadLine()) return false;
    char* at = m_line;
    const auto number = [&at](int base, size_t separator) {
        const unsigned long value = std::strtoul(at, &at, base);
        at += separator;
        return value;
    };
    constexpr size_t kPermissions = 6;  // with a blank on either side
    range.begin = number(16, 1);
    range.end = number(16, kPermissions);
    range.offset = number(16, 1);
    const auto major = static_cast<unsigned int>(number(16, 1));
    range.device = makedev(major, static_cast<unsigned int>(number(16, 1)));
    range.inode = number(10, 0);
    range.path = at + std::strspn(at, " ");
    return true;
}

}  // namespace hostdevice
