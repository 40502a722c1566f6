# SPDX-License-Identifier: GPL-2.0-only
# CMake toolchain: programs of the lab's virtual machine, hard float, with headers and libraries of ARMHF_ROOT.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Notes about a change of GCC 7, which every toolchain in use has.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# Nothing of the host is taken by accident: a host header would compile and then be wrong.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
