# The big-endian machine.
set(cross_processor s390x)
set(cross_triplet s390x-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
