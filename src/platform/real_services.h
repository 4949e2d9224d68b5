// The operating system's services that live in their own files of this folder. Each is made on
// first use and never deleted; Env::real() hands them out, and nothing else should reach them.
#pragma once

#include <kestrova/file_system.h>
#include <kestrova/process_launcher.h>

namespace kestrova::platform {

FileSystem& realFileSystem();
ProcessLauncher& realProcessLauncher();

}  // namespace kestrova::platform
