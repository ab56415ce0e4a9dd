#include <workspace_browser/platform/ThreadName.hpp>

#include <pthread.h>

#include <system_error>

namespace foundation::core::diag {

void setCurrentThreadName(const std::string& name) {
    // Linux refuses names longer than 15 bytes; keep the first 15, without splitting a UTF-8
    // sequence so that tools show a valid name.
    std::string cut = name.substr(0, 15);
    if (name.size() > 15) {
        std::size_t end = cut.size();
        while (end > 0 && (static_cast<unsigned char>(cut[end - 1]) & 0xC0) == 0x80)
            --end;
        if (end > 0 && (static_cast<unsigned char>(cut[end - 1]) & 0x80) != 0) {
            // cut[end-1] is a lead byte; drop it unless its whole sequence fitted.
            const unsigned char lead = static_cast<unsigned char>(cut[end - 1]);
            const std::size_t need = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
            if (cut.size() - (end - 1) < need)
                cut.resize(end - 1);
        }
    }
    if (int rc = pthread_setname_np(pthread_self(), cut.c_str()); rc != 0)
        throw std::system_error(rc, std::generic_category(), "setCurrentThreadName");
}

std::string currentThreadName() {
    char buf[64] = {};
    if (int rc = pthread_getname_np(pthread_self(), buf, sizeof buf); rc != 0)
        throw std::system_error(rc, std::generic_category(), "currentThreadName");
    return buf;
}

} // namespace foundation::core::diag
