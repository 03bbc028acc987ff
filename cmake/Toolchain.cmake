# How every target is compiled and linked: language, warnings, sanitizers, where the results go.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

set(TAVREL_SANITIZER "" CACHE STRING "Value of -fsanitize= for every object, empty for none")

# Boost's own headers are third party: their warnings are not ours to mend.
add_compile_options(-Wall -Wextra -Werror -Wno-error=deprecated-declarations)
add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
# No file of the build place is named inside what is shipped.
add_compile_options("-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=" "-ffile-prefix-map=${CMAKE_BINARY_DIR}/=")
add_compile_definitions(BOOST_BIND_GLOBAL_PLACEHOLDERS BOOST_ALLOW_DEPRECATED_HEADERS)
add_link_options(-Wl,--as-needed -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--disable-new-dtags)
# What users get; the sanitizers see more by themselves, and fortified calls only without them.
# A compiler may bring a level of _FORTIFY_SOURCE of its own. Fortified headers have GCC warn of
# results that are not used even where static_cast<void> says that this is meant.
file(STRINGS cmake/hardening.flags hardening)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS cmake/hardening.flags)
add_compile_options("$<$<CONFIG:Release>:${hardening};-Wno-unused-result>")

if(TAVREL_SANITIZER)
  add_compile_options(-fsanitize=${TAVREL_SANITIZER} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${TAVREL_SANITIZER})
endif()
