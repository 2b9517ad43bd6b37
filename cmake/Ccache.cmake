# Compiles go through ccache where it is installed. Paths are made relative to the source folder,
# so that a fresh clone elsewhere finds what an earlier one compiled.
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
      CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_MAXSIZE=5G ${CCACHE_PROGRAM})
endif()
