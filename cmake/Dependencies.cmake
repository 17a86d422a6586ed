# SPDX-License-Identifier: Apache-2.0
# The packages we build on, all from the distribution. For LINKS and USES:
#   PkgConfig::CJSON  PkgConfig::SYSTEMD  PkgConfig::SQLITE  CLI11::CLI11  benchmark::benchmark
# nm_test links GoogleTest and GMock by itself.

find_package(PkgConfig REQUIRED)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
find_package(CLI11 REQUIRED)
if(NM_TESTS)
    find_package(GTest REQUIRED)
endif()
if(NM_BENCH)
    find_package(benchmark REQUIRED)
endif()
