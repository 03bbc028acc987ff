# cmake -D OUTPUT=FILE -P BuildTime.cmake: writes the C++ source that defines buildTime. CMake takes
# the moment from SOURCE_DATE_EPOCH where that is set.
string(TIMESTAMP build_time "%Y-%m-%dT%H:%M:%S" UTC)
file(WRITE ${OUTPUT} "#include \"MAIN/src/Embedded.h\"\n\nconst char Launcher::buildTime[] = \"${build_time}\";\n")
