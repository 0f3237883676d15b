# Writes FILES, which lie in FOLDER, into OUTPUT: a source that holds them as they are.
set(type_html "text/html; charset=utf-8")
set(type_css "text/css; charset=utf-8")
set(type_js "text/javascript; charset=utf-8")
set(type_svg "image/svg+xml")
set(arrays "")
set(rows "")
set(number 0)
foreach(name IN LISTS FILES)
  file(READ "${FOLDER}/${name}" bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "const unsigned char file${number}[] = {${bytes}0};\n")
  get_filename_component(ending "${name}" LAST_EXT)
  string(SUBSTRING "${ending}" 1 -1 ending)
  string(REPLACE "." "\\\\." path "/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND rows "    {\"${path}\", \"${type_${ending}}\", view(file${number}, sizeof file${number} - 1)},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE "${OUTPUT}" "#include \"Tools/skelda-collector/Page.h\"

namespace {

${arrays}
std::string_view view(const unsigned char* bytes, std::size_t length) {
  return {reinterpret_cast<const char*>(bytes), length};
}

const PageFile files[] = {
${rows}};

}  // namespace

std::span<const PageFile> pageFiles() { return files; }
")
