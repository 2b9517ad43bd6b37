#include <iostream>

#include "tools/ctl/Run.h"

int main(int argc, char** argv) { return rrm::ctl::run(argc, argv, std::cout, std::cerr); }
