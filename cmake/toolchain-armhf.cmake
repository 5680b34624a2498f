# Cross build for the recorder's 32-bit ARM Linux (armhf) with Debian's arm-linux-gnueabihf
# toolchain. The libraries come from PM_ARMHF_ROOT (cache or environment; default: the
# checkout's .deps/armhf, which scripts/deps-armhf.sh fills). Programs built here run on the
# desktop through qemu-arm, which CTest uses as the emulator of every test.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
# Plug-in authors building out of tree use the copy installed with the SDK
# (<prefix>/lib/cmake/BasicService/toolchain-armhf.cmake) the same way.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(PM_ARMHF_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${PM_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${PM_ARMHF_TRIPLE}-g++)

# try_compile runs this file again in a fresh project: hand the root on through the cache
# and the environment.
if(NOT PM_ARMHF_ROOT)
  if(DEFINED ENV{PM_ARMHF_ROOT})
    set(PM_ARMHF_ROOT "$ENV{PM_ARMHF_ROOT}")
  elseif(EXISTS "${CMAKE_CURRENT_LIST_DIR}/../.deps/armhf")
    get_filename_component(PM_ARMHF_ROOT "${CMAKE_CURRENT_LIST_DIR}/../.deps/armhf" ABSOLUTE)
  else()
    message(FATAL_ERROR "armhf libraries not found: run scripts/deps-armhf.sh, or set "
                        "PM_ARMHF_ROOT to a folder that holds them (usr/lib/arm-linux-gnueabihf)")
  endif()
  set(PM_ARMHF_ROOT "${PM_ARMHF_ROOT}" CACHE PATH "Unpacked armhf libraries")
endif()
set(ENV{PM_ARMHF_ROOT} "${PM_ARMHF_ROOT}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PM_ARMHF_ROOT)

# Headers and libraries from the root (and the toolchain's own sysroot); programs such as
# pkg-config from the host. CMake packages from the root first, then as given: an SDK
# installed for armhf anywhere on this machine is found through CMAKE_PREFIX_PATH.
set(CMAKE_FIND_ROOT_PATH "${PM_ARMHF_ROOT}" /usr/${PM_ARMHF_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${PM_ARMHF_ROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${PM_ARMHF_ROOT}/usr/lib/${PM_ARMHF_TRIPLE}/pkgconfig:${PM_ARMHF_ROOT}/usr/share/pkgconfig")

# The libraries' own dependencies (libsodium behind libzmq, ...) are found at link time here;
# Debian puts some of them below /lib. The /lib folder is also a search folder: ncurses' -dev
# link is a script naming libncursesw.so.6, which lives there.
set(_pm_armhf_libdirs
    "${PM_ARMHF_ROOT}/usr/lib/${PM_ARMHF_TRIPLE}:${PM_ARMHF_ROOT}/lib/${PM_ARMHF_TRIPLE}")
foreach(_kind EXE SHARED MODULE)
  set(CMAKE_${_kind}_LINKER_FLAGS_INIT
      "-Wl,-rpath-link,${_pm_armhf_libdirs} -L${PM_ARMHF_ROOT}/lib/${PM_ARMHF_TRIPLE}")
endforeach()

# One glibc only: the toolchain's sysroot; the unpacked libraries through the guest's
# LD_LIBRARY_PATH.
find_program(PM_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${PM_QEMU_ARM};-L;/usr/${PM_ARMHF_TRIPLE};-E;LD_LIBRARY_PATH=${_pm_armhf_libdirs}")
