// The logging library, compiled into the process once.
#include <easylogging++.cc>  // NOLINT(bugprone-suspicious-include): shipped as a source file

INITIALIZE_EASYLOGGINGPP
