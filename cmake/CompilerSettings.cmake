# Warnings and sanitizers, the same for every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # What is guarded by which mutex is written in the code (foundation/Mutex.h).
  add_compile_options(-Wthread-safety)
endif()
# Code fit for a shared library could be replaced by another library's function of the same name, which would keep the
# compiler from inlining its own.
add_compile_options(-fno-semantic-interposition)
if(VEXA_WERROR)
  add_compile_options(-Werror)
endif()

if(VEXA_SANITIZE STREQUAL "address")
  set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(VEXA_SANITIZE STREQUAL "thread")
  set(sanitizers -fsanitize=thread -fno-omit-frame-pointer)
elseif(VEXA_SANITIZE)
  message(FATAL_ERROR "VEXA_SANITIZE is empty, address or thread, not ${VEXA_SANITIZE}")
endif()
if(VEXA_SANITIZE)
  add_compile_options(${sanitizers})
  add_link_options(${sanitizers})
  # The run time goes into each program, so that it comes before a preloaded stand-in library; and
  # each program exports all of it to the libraries, not only what it was linked for.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # In instrumented code the compiler loses track of initialisation; the plain builds check that.
    add_compile_options(-Wno-maybe-uninitialized)
    if(VEXA_SANITIZE STREQUAL "address")
      add_link_options(-static-libasan -static-libubsan)
    else()
      add_link_options(-static-libtsan)
    endif()
    add_link_options(-rdynamic)
  endif()
endif()

if(VEXA_STATIC_RUNTIME)
  add_link_options(-static-libstdc++ -static-libgcc)
endif()
