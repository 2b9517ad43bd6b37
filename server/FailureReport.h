#pragma once

#include <exception>

/// Reports the exception that ended the process: a line on standard error and an Error record of
/// the function "main". Both name errno only when it is set.
/// @param code  errno as it was when the exception was caught
void report_failure(const std::exception& failure, int code);
