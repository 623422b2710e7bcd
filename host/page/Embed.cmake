# Writes RESULT, the C++ source that holds FILES compressed, for Assets.h.
get_filename_component(folder ${RESULT} DIRECTORY)
set(types html "text/html; charset=utf-8" js "text/javascript; charset=utf-8" css "text/css" svg "image/svg+xml")
set(data "")
set(entries "")
set(number 0)
foreach(file ${FILES})
  get_filename_component(name ${file} NAME)
  string(REGEX REPLACE ".*\\." "" extension ${name})
  list(FIND types ${extension} place)
  if(place LESS 0)
    message(FATAL_ERROR "${name} is of no known type")
  endif()
  math(EXPR place "${place} + 1")
  list(GET types ${place} type)
  set(packed ${folder}/${name}.gz)
  execute_process(COMMAND ${GZIP} -9nc ${file} OUTPUT_FILE ${packed} COMMAND_ERROR_IS_FATAL ANY)
  file(SHA256 ${packed} hash)
  string(SUBSTRING ${hash} 0 16 hash)
  string(APPEND data
    "asm(\".section .rodata\\nasset${number}:\\n.incbin \\\"${packed}\\\"\\nasset${number}_end:\\n.byte 0\\n.previous\");\n"
    "extern \"C\" const std::uint8_t asset${number}[], asset${number}_end[];\n")
  string(APPEND entries
    "    {\"/${name}\", \"${type}\", \"\\\"${hash}\\\"\", {asset${number}, asset${number}_end}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${RESULT} "#include \"page/Assets.h\"\n\n${data}
namespace vexahost::page {

std::span<const Asset> Assets() {
  static const Asset kAssets[] = {
${entries}  };
  return kAssets;
}

}  // namespace vexahost::page
")
