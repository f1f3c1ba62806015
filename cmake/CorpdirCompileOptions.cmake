# Compiler options of all our targets: the interface target corpdir_options.
add_library(corpdir_options INTERFACE)
target_compile_options(corpdir_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wnon-virtual-dtor -Werror
  # Log records and messages name files relative to the source tree, the same from every checkout.
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

# In releases a buffer overflow aborts the program, and the linker drops unused functions.
if(NOT CORPDIR_SANITIZE)
  target_compile_options(corpdir_options INTERFACE
    $<$<CONFIG:Release>:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>
    $<$<CONFIG:Release>:-ffunction-sections;-fdata-sections>)
endif()

if(CORPDIR_SANITIZE)
  add_compile_options(-fsanitize=${CORPDIR_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${CORPDIR_SANITIZE})
  # With sanitizers, gcc 12 reports uninitialized memory in the standard library's own std::regex.
  target_compile_options(corpdir_options INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
