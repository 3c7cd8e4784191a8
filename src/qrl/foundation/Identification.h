// The running application's identity from its bundle facts (Bundle::main()):
// versions, identifier, names, and its application support folder. Linux has
// no application object, so these are free functions only.
#pragma once

#include <string>

namespace qrl {

// Each reads the key from the main bundle's Info dictionary; when the key is
// absent there, the matching Bundle field stands in (version, shortVersion,
// identifier, the executable's file name, name). Empty when neither has it.
std::string applicationVersion();       // "CFBundleVersion"
std::string applicationVersionShort();  // "CFBundleShortVersionString"
std::string applicationIdentifier();    // "CFBundleIdentifier"
std::string applicationName();          // "CFBundleExecutable"
std::string appNameByBundle();          // "CFBundleName"

// The per-user data folder with appNameByBundle() appended: $XDG_DATA_HOME
// when set to an absolute path, else "$HOME/.local/share" (the Linux
// counterparts of the user's application support directory), else the
// temporary directory ($TMPDIR, or /tmp). Not created here.
std::string applicationSupportFolder();

}  // namespace qrl
