# Third-party packages. Those in a public header are found again by the installed package
# (see AddLibrary.cmake); all others are linked privately and leave no trace in it.

find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS thread)
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(OpenSSL 3 REQUIRED)

# Asio and MessagePack are headers only, and Debian ships no usable CMake package for either.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(house_asio INTERFACE)
target_include_directories(house_asio SYSTEM INTERFACE "${ASIO_INCLUDE_DIR}")
# Asio asks for aligned_alloc only where a standard header was included before it: two sources could
# disagree, and one release with delete what the other took from malloc.
target_compile_definitions(house_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED
                                                ASIO_DISABLE_STD_ALIGNED_ALLOC)
# GCC warns that the thread sanitizer does not see Asio's fences; that can cost false reports only.
target_compile_options(house_asio INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
target_link_libraries(house_asio INTERFACE Threads::Threads)
add_library(house::asio ALIAS house_asio)

find_path(MSGPACK_INCLUDE_DIR msgpack.hpp REQUIRED)
add_library(house_msgpack INTERFACE)
target_include_directories(house_msgpack SYSTEM INTERFACE "${MSGPACK_INCLUDE_DIR}")
target_compile_definitions(house_msgpack INTERFACE MSGPACK_NO_BOOST)
add_library(house::msgpack ALIAS house_msgpack)

if(JX_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
if(JX_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
