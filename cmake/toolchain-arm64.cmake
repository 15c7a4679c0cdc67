# Debian arm64 (64-bit ARM).
# cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm64.cmake, or the preset arm64.
set(LUMORA_CROSS_TRIPLET aarch64-linux-gnu)
set(LUMORA_CROSS_PROCESSOR aarch64)
set(LUMORA_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-debian-cross.cmake)
