# One set of compiler settings for the whole tree.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Werror)

# clang keeps its sanitizer runtime in the executable, so there a shared library has to leave it undefined.
if(NOT (FIELDWARDEN_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang"))
    add_link_options(-Wl,--no-undefined)
endif()

# The path of the build machine has no business in a shipped binary or in a stored ABI description.
add_compile_options("-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")

find_program(CCACHE ccache)
if(CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()

if(FIELDWARDEN_SANITIZE)
    add_compile_options("-fsanitize=${FIELDWARDEN_SANITIZE}" -fno-omit-frame-pointer -O1)
    add_link_options("-fsanitize=${FIELDWARDEN_SANITIZE}")
    if(FIELDWARDEN_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
    if(FIELDWARDEN_SANITIZE STREQUAL "thread")
        add_compile_options(-Wno-tsan) # gcc: atomic_thread_fence, in Boost's headers only
    endif()
endif()

if(FIELDWARDEN_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link) # so that the fuzzer sees the paths through every room
endif()
