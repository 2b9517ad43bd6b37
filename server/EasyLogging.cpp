// The logging library, compiled into the process once.
#include <easylogging++.cc>

INITIALIZE_EASYLOGGINGPP
