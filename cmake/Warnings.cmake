# Every warning is an error, for every target and both compilers.

# clang counts -Wsign-conversion as part of -Wconversion and GCC does not; named here so that both say the same.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Werror)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 sees overlapping copies, and copies out of bounds, in std::string concatenation where there are none.
  add_compile_options(-Wno-restrict -Wno-array-bounds)
  if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    # The sanitizers' instrumentation hides initialisations from GCC's flow analysis.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
else()
  # C++20 allows a variadic macro without variadic arguments; clang 14 still calls it an extension.
  add_compile_options(-Wno-gnu-zero-variadic-macro-arguments)
endif()
