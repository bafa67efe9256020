# Turns the catalogue text into a C++ source: the bytes of IN as an array
# (the text may hold anything a compiler's string literal would not) and its
# size. Run by the build whenever IN changes: cmake -DIN=... -DOUT=... -P.
file(READ "${IN}" hex HEX)
string(LENGTH "${hex}" hex_length)
math(EXPR size "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE "${OUT}.tmp" "// Generated from services.txt by EmbedCatalogue.cmake: do not edit.\n#include <stddef.h>\nnamespace kest_service {\nextern const char kBuiltinCatalogue[];\nextern const size_t kBuiltinCatalogueSize;\nconst char kBuiltinCatalogue[] = {\n${bytes}0};\nconst size_t kBuiltinCatalogueSize = ${size};\n}\n")
file(COPY_FILE "${OUT}.tmp" "${OUT}" ONLY_IF_DIFFERENT)
