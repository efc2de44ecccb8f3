# Writes OUTPUT, a C++ source holding the bytes of INPUT as a character array.
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" hexLength)
math(EXPR size "${hexLength} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
"// Generated from catalogue.json; do not edit.
#include <cstddef>

namespace zvsandbox {
extern const unsigned char kCatalogueBytes[] = {
${bytes}0x00};
extern const std::size_t kCatalogueSize = ${size};
}  // namespace zvsandbox
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
