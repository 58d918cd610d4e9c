# Compiler flags that every target of the tree gets through kelv_options.
add_library(kelv_options INTERFACE)
target_include_directories(kelv_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(kelv_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion)
if(KELV_WARNINGS_AS_ERRORS)
  target_compile_options(kelv_options INTERFACE -Werror)
endif()
if(KELV_SANITIZE)
  # The check of vtable pointers needs descriptors, and reports an error where a test leaves none.
  target_compile_options(kelv_options INTERFACE -fsanitize=address,undefined -fno-sanitize=vptr
                                                -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(kelv_options INTERFACE -fsanitize=address,undefined)
endif()
if(KELV_COVERAGE)
  # Several threads count.
  target_compile_options(kelv_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(kelv_options INTERFACE --coverage)
  # So do processes that end without exit handlers.
  add_library(coverage_exit STATIC ${CMAKE_CURRENT_LIST_DIR}/coverage_exit.c)
  target_link_libraries(kelv_options INTERFACE coverage_exit)
  target_link_options(kelv_options INTERFACE LINKER:--wrap=_exit,--wrap=_Exit,--wrap=abort,--undefined=__wrap_abort)
endif()
