#include <workspace_browser/workspace_browser.hpp>

#include <iostream>

int main() {
    foundation::core::diag::setCurrentThreadName("consumer");
    foundation::log::basic_diagnostic_logger logger("consumer");
    std::cout << "consumer linked workspace_browser; thread "
              << foundation::core::diag::currentThreadName() << "\n";
    return logger.name() == "consumer" ? 0 : 1;
}
