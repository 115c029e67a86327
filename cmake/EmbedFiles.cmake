# Puts files into a program, so that it needs none of them beside it.
#
#   embed_files(<target> <function> [PREFIX …] FILES a b …)
#
# adds a generated source to the target that defines
#   std::span<EmbedFile const> libfieldwarden::sim::<function>();   (simulator/instrument/EmbeddedFile.h)
function(embed_files target function)
    cmake_parse_arguments(EMBED "" "" "FILES" ${ARGN})
    set(arrays "")
    set(rows "")
    set(number 0)
    foreach(file ${EMBED_FILES})
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
        file(READ "${file}" hex HEX)
        string(REGEX REPLACE "(..)" "0x\\1," bytes "${hex}")
        get_filename_component(name "${file}" NAME)
        string(APPEND arrays "constexpr unsigned char kBytes${number}[] = {${bytes}};\n")
        string(APPEND rows "    {\"${name}\", kBytes${number}},\n")
        math(EXPR number "${number} + 1")
    endforeach()
    set(source "${CMAKE_CURRENT_BINARY_DIR}/${function}.cpp")
    file(CONFIGURE OUTPUT "${source}" CONTENT "// Generated from the files named below.
#include \"simulator/instrument/EmbeddedFile.h\"

namespace libfieldwarden::sim {

namespace {

${arrays}
constexpr EmbeddedFile kFiles[] = {
${rows}};

} // namespace

std::span<EmbeddedFile const> ${function}() {
    return kFiles;
}

} // namespace libfieldwarden::sim
" @ONLY)
    target_sources(${target} PRIVATE "${source}")
endfunction()
