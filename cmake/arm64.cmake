# 64-bit ARM.
set(cross_processor aarch64)
set(cross_triplet aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
