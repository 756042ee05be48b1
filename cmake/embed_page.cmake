# Writes OUTPUT, a C++ file that defines find_asset and contains the page's files from DIRECTORY.
set(types html "text/html" css "text/css" js "text/javascript" svg "image/svg+xml")
set(data "")
set(table "")
file(GLOB files ${DIRECTORY}/*)
foreach(file ${files})
    get_filename_component(name ${file} NAME)
    string(MAKE_C_IDENTIFIER ${name} identifier)
    string(REGEX REPLACE ".*\\." "" extension ${name})
    list(FIND types ${extension} index)
    if(index EQUAL -1)
        message(FATAL_ERROR "cannot embed ${file}: no content type for .${extension}; add one to ${CMAKE_CURRENT_LIST_FILE}")
    endif()
    math(EXPR index "${index} + 1")
    list(GET types ${index} type)
    file(READ ${file} hex HEX)
    string(REGEX REPLACE "(..)" "\\\\x\\1" bytes "${hex}")
    # One source line per 8 bytes.
    string(REGEX REPLACE "((\\\\x..)(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?(\\\\x..)?)" "\"\\1\"\n" bytes "${bytes}")
    string(APPEND data "constexpr char ${identifier}[] =\n${bytes};\n")
    string(APPEND table "    {\"/${name}\", \"${type}\", {${identifier}, sizeof ${identifier} - 1}},\n")
    if(name STREQUAL "index.html")
        string(APPEND table "    {\"/\", \"${type}\", {${identifier}, sizeof ${identifier} - 1}},\n")
    endif()
endforeach()
file(WRITE ${OUTPUT} "#include \"devkit/viewer/assets.h\"\n
namespace guilink {
namespace {
${data}
constexpr Asset ASSETS[] = {
${table}};
}  // namespace

const Asset* find_asset(std::string_view path) {
    for (const Asset& asset : ASSETS) {
        if (asset.path == path) return &asset;
    }
    return nullptr;
}

}  // namespace guilink
")
