# Writes OUTPUT, a C++ file that holds the page's files and the description of the HTTP interface:
#   corvane_embed(OUTPUT OPENAPI PAGE_FOLDER FILES...)
# The assembler takes the files in as they are, so that their size costs no compile time.
function(corvane_embed output openapi folder)
  set(blobs "")
  set(table "")
  set(number 0)
  foreach(file IN LISTS openapi ARGN)
    file(RELATIVE_PATH name ${folder} ${file})
    string(APPEND blobs "BLOB(${number}, \"${file}\")\n")
    if(number GREATER 0)
      string(APPEND table "    {\"${name}\", begin${number}, end${number}},\n")
    endif()
    math(EXPR number "${number} + 1")
  endforeach()
  file(CONFIGURE OUTPUT ${output} @ONLY CONTENT [[
// Made by appliance/server/embed.cmake.
#include "page_files.h"

#define BLOB(number, file)                                                                         \
    extern "C" const char begin##number[] __asm__("corvane_blob_" #number);                        \
    extern "C" const char end##number[] __asm__("corvane_blob_end_" #number);                      \
    __asm__(".pushsection .rodata\n"                                                               \
            "corvane_blob_" #number ": .incbin \"" file "\"\n"                                     \
            "corvane_blob_end_" #number ": .byte 0\n"                                              \
            ".popsection\n");

@blobs@
namespace corvane::appliance {

const std::vector<EmbeddedFile> kEmbeddedPage{
@table@};
const EmbeddedFile kEmbeddedOpenApi{"openapi.json", begin0, end0};

} // namespace corvane::appliance
]])
  set_source_files_properties(${output} PROPERTIES OBJECT_DEPENDS "${openapi};${ARGN}")
endfunction()
