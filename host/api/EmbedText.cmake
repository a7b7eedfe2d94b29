# Writes a C++ source that holds the bytes of INPUT as the array NAME (and NAME_size), so that a file
# becomes part of the binary. Usage: cmake -DINPUT=... -DOUTPUT=... -DNAME=... -P EmbedText.cmake
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" hexLength)
math(EXPR size "${hexLength} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
# Long lines are no problem for the compiler, but a break every 32 bytes keeps the file readable.
string(REGEX REPLACE "(('\\\\x[0-9a-f][0-9a-f]',){32})" "\\1\n" bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
     "// Generated from ${INPUT}; do not edit.\n"
     "extern \"C\" const char ${NAME}[] = {\n${bytes}'\\0'};\n"
     "extern \"C\" const unsigned long ${NAME}_size = ${size};\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
