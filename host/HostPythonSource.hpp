#pragma once

namespace wsbrowser {

// The source text of the host's Python helper module (python/wsbrowser_host.py), built into
// the program so that the host needs no file at run time.
const char* hostPythonSource();

} // namespace wsbrowser
