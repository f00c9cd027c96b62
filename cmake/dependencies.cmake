# The libraries that the project uses, as imported targets:
#   ZLIB::ZLIB PNG::PNG TIFF::TIFF GIF::GIF PkgConfig::webp PkgConfig::seccomp Threads::Threads
#   jpeg9::jpeg9 json11::json11                      (scripts/setup provides these two)
#   CLI11::CLI11 GTest::gtest GTest::gmock benchmark::benchmark

find_package(Threads REQUIRED)
find_package(ZLIB REQUIRED)
find_package(PNG REQUIRED)
find_package(TIFF REQUIRED)
find_package(GIF 5 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(webp REQUIRED IMPORTED_TARGET libwebp)
pkg_check_modules(seccomp REQUIRED IMPORTED_TARGET libseccomp)
find_package(jpeg9 REQUIRED MODULE)
find_package(json11 REQUIRED MODULE)
find_package(CLI11 REQUIRED)

if(STILLIMAGE_BUILD_TESTS)
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()
if(STILLIMAGE_BUILD_BENCH)
    find_package(benchmark REQUIRED)
endif()
