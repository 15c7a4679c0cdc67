# Debian armhf (32-bit ARM, hard float), as on the television.
# cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake, or the preset armhf.
set(LUMORA_CROSS_TRIPLET arm-linux-gnueabihf)
set(LUMORA_CROSS_PROCESSOR arm)
set(LUMORA_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-debian-cross.cmake)
