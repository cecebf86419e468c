#include <sys/uio.h>
#include <unistd.h>

#include <cstring>

#include "android/set_abort_message.h"

void android_set_abort_message(const char* msg) {
    if (msg == nullptr) return;
    char newline = '\n';
    const iovec parts[] = {{const_cast<char*>(msg), std::strlen(msg)}, {&newline, 1}};
    [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, parts, 2);
}
