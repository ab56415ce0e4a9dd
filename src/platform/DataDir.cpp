#include "platform/DataDir.hpp"

#include <dlfcn.h>

#include <system_error>

namespace wsb::platform {

std::filesystem::path dataDir() {
    static const std::filesystem::path dir = [] {
        Dl_info info{};
        if (dladdr(reinterpret_cast<void*>(&dataDir), &info) != 0 && info.dli_fname != nullptr) {
            std::error_code ec;
            auto lib = std::filesystem::canonical(info.dli_fname, ec);
            if (!ec) {
                auto candidate = lib.parent_path().parent_path() / "share" / "workspace_browser";
                if (std::filesystem::is_directory(candidate, ec))
                    return candidate;
            }
        }
        return std::filesystem::path(WSB_INSTALL_DATADIR);
    }();
    return dir;
}

} // namespace wsb::platform
