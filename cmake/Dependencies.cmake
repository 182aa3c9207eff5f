# Every dependency comes from Debian's packages (see scripts/install-deps.sh). An
# installed VKQVeskConfig.cmake finds the library's own ones again (cmake/VKQVeskConfig.cmake.in).
find_package(Threads REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBDEFLATE REQUIRED IMPORTED_TARGET libdeflate)
pkg_check_modules(LIBPLIST REQUIRED IMPORTED_TARGET libplist-2.0)

# What the tools, tests and benchmarks need besides.
if(VKQ_BUILD_TOOLS OR VKQ_BUILD_TESTS OR VKQ_BUILD_BENCHMARKS)
  find_package(ZLIB REQUIRED)
  # cpp-httplib's class layout depends on its feature macros: always compile it with its own flags.
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
endif()
if(VKQ_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(VKQ_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
