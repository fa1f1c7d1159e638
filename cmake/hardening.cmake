# What is shipped runs as root and reads what others wrote: a fault of memory ends it at once, and
# what a relocation or a return address says can't be bent.
include(CheckCXXCompilerFlag)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
  add_compile_definitions(_FORTIFY_SOURCE=3)
else()
  add_compile_definitions(_FORTIFY_SOURCE=2)
endif()
add_compile_definitions($<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)
# Branch protection has another name on each architecture.
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection=full
             -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    add_compile_options(${flag})
  endif()
endforeach()
add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

# No paths of the machine that built it.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
