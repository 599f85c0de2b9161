# Writes a C++ source that holds the page's files as byte arrays: cmake -DOUTPUT=... -DFILES="a;b" -P embed.cmake
set(arrays "")
set(entries "")
set(index 0)
foreach(file IN LISTS FILES)
  file(READ "${file}" hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
  get_filename_component(name "${file}" NAME)
  string(APPEND arrays "const unsigned char kFile${index}[] = {\n${bytes}0x00};\n")
  string(APPEND entries "    {\"/${name}\", kFile${index}, sizeof(kFile${index}) - 1},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Generated from tools/sensorctl/view/page/ by embed.cmake; do not edit.\n"
  "#include \"view/page_files.h\"\n\nnamespace sensorctl::view {\nnamespace {\n${arrays}}  // namespace\n\n"
  "const PageFile kPageFiles[] = {\n${entries}};\nconst size_t kPageFileCount = ${index};\n\n}  // namespace sensorctl::view\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
