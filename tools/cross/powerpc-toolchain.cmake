# 32-bit big-endian powerpc Linux, run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

if(NOT TAVRO_SYSROOT)
  set(TAVRO_SYSROOT $ENV{TAVRO_SYSROOT})
endif()
set(CMAKE_FIND_ROOT_PATH ${TAVRO_SYSROOT} /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L /usr/powerpc-linux-gnu)

# Boost headers do not depend on the architecture; the library comes from the sysroot.
set(Boost_INCLUDE_DIR /usr/include)
set(Boost_USE_STATIC_LIBS ON)
set(Boost_NO_SYSTEM_PATHS ON)
set(Boost_NO_BOOST_CMAKE ON)
set(BOOST_LIBRARYDIR ${TAVRO_SYSROOT}/lib)
