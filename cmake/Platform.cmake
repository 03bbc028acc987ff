# The closed libraries, as targets TavrelPlatform::NAME: those of an SDK, or the stand-ins.
#
# An SDK is a folder with include/, lib/ and, below lib/cmake/TavrelPlatform, TavrelPlatformConfig.cmake,
# which makes the four targets. `cmake --install FOLDER --component platform-sdk --prefix DIR` writes
# that of the stand-ins.
set(TAVREL_PLATFORM_SDK "" CACHE PATH "SDK of the closed libraries; without one stand-ins are built")

if(NOT TAVREL_PLATFORM_SDK)
  include(OptionWords)
  add_subdirectory(standins)
  return()
endif()

find_package(TavrelPlatform REQUIRED CONFIG PATHS ${TAVREL_PLATFORM_SDK} NO_DEFAULT_PATH)
foreach(library ZkConfiguration ZkLoggingHost ZkPlexum3 ZkPlexumSDK)
  if(NOT TARGET TavrelPlatform::${library})
    message(FATAL_ERROR "${TavrelPlatform_CONFIG} makes no target TavrelPlatform::${library}")
  endif()
endforeach()
