# Every build option of the project, with its default. Nothing else in the tree declares a cache
# variable.
include_guard(GLOBAL)

option(ORMEL_WERROR "Treat compiler warnings as errors" OFF)
option(ORMEL_TESTS "Build the tests" ON)
option(ORMEL_BENCH "Build the benchmarks" ON)
option(ORMEL_FUZZ "Build the fuzz targets with libFuzzer (clang only)" OFF)
set(ORMEL_SANITIZE "" CACHE STRING
  "Sanitizers to build with, as -fsanitize= takes them; empty for none")
set(ORMEL_DRIVERS "" CACHE PATH
  "Build folder that compiles the system tests' drivers for one with sanitizers; empty for none")
option(ORMEL_COVERAGE "Instrument for gcov" OFF)

# pppd takes a plugin that was made for its own version only.
set(ORMEL_PPPD_VERSION "2.4.9" CACHE STRING "Version of pppd on the target host")

# Deployment values: the hosts that the program speaks to.
set(ORMEL_CLOUD_DOMAIN "pelmar.example" CACHE STRING "Domain of the cloud services")
set(ORMEL_PROVIDER_HOST "vpn-provider.example" CACHE STRING
  "Host of the VPN provider's server list")
# Who the program is to those services: an id of 24 bytes, a secret of 32 and a provider of 3.
set(ORMEL_APP_ID "ormel-appliance-00000000" CACHE STRING "Application id at the cloud, 24 bytes")
set(ORMEL_APP_SECRET "00000000000000000000000000000000" CACHE STRING
  "Application secret at the cloud, 32 bytes")
set(ORMEL_APP_PROVIDER "vtr" CACHE STRING "Login provider at the cloud, 3 bytes")
mark_as_advanced(ORMEL_APP_SECRET)
