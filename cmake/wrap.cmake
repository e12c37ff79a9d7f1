# For the tests that put functions of their own, __wrap_NAME, in the place of others by the linker's --wrap.

# size_t's type in the names of the allocation functions.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(size_t_code m)
else()
  set(size_t_code j)
endif()

# With times of 64 bits a 32-bit processor's C library knows some functions by other names. Replaces them in the named
# list, and sets wrap_definitions to macros that let a source keep to the usual ones behind __wrap_ and __real_.
function(use_linked_names list)
  set(definitions SIZE_T_CODE="${size_t_code}")
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(names clock_gettime fopen gmtime ioctl nanosleep open setsockopt time timerfd_settime)
    set(linked_names __clock_gettime64 fopen64 __gmtime64 __ioctl_time64 __nanosleep64 open64 __setsockopt64 __time64
      __timerfd_settime64)
    foreach(name linked_name IN ZIP_LISTS names linked_names)
      list(TRANSFORM ${list} REPLACE "^${name}$" ${linked_name})
      list(APPEND definitions __wrap_${name}=__wrap_${linked_name} __real_${name}=__real_${linked_name})
    endforeach()
  endif()
  set(${list} ${${list}} PARENT_SCOPE)
  set(wrap_definitions ${definitions} PARENT_SCOPE)
endfunction()
