# What a Release build uses unless the packager, their toolchain file or their cache says otherwise.
# CMake reads this where it makes its own defaults (CMAKE_USER_MAKE_RULES_OVERRIDE_CXX), so that all
# of theirs are kept as they are, hardening included.

# Flash is the scarcer thing on an appliance: the run waits for the disk, not for the processor.
# _FORTIFY_SOURCE is undefined first, for some compilers define it themselves.
set(own_release_flags "-Os -ffunction-sections -fdata-sections \
-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2")
if(CMAKE_CXX_FLAGS_RELEASE_INIT STREQUAL " -O3 -DNDEBUG")
    set(CMAKE_CXX_FLAGS_RELEASE_INIT "${own_release_flags}")
endif()
if(NOT CMAKE_EXE_LINKER_FLAGS_RELEASE_INIT)
    set(CMAKE_EXE_LINKER_FLAGS_RELEASE_INIT "-Wl,--gc-sections -Wl,-z,relro,-z,now")
endif()
