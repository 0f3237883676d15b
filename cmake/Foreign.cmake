# What the toolchain files of other processors share. They set: skelda_processor (Debian's name, and
# that of the folder of libraries below build/sysroot, made by scripts/cross), skelda_triplet and
# skelda_emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${skelda_processor})
cmake_path(NORMAL_PATH CMAKE_SYSROOT)
set(CMAKE_C_COMPILER ${skelda_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${skelda_triplet}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR
  ${CMAKE_CURRENT_LIST_DIR}/../scripts/lib/emulated ${skelda_emulator} ${CMAKE_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
  ${CMAKE_SYSROOT}/usr/lib/${skelda_triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# Libraries that only other libraries need: the linker does not look for them by itself.
set(skelda_link_paths)
foreach(folder usr/lib lib)
  string(APPEND skelda_link_paths " -Wl,-rpath-link,${CMAKE_SYSROOT}/${folder}/${skelda_triplet}")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "${skelda_link_paths}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${skelda_link_paths}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${skelda_link_paths}")
