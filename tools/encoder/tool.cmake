# Tarnwick_Pro_Encoder: lands in <build>/bin beside the programs that run it,
# with its scan relay. The launcher links no Qt so that an encode starts fast.
set(encoder_scan_sources ${tool_sources})
list(FILTER encoder_scan_sources INCLUDE REGEX "/tools/encoder/scan/")
set(encoder_launcher_sources ${tool_sources})
list(FILTER encoder_launcher_sources EXCLUDE REGEX "/tools/encoder/scan/")

# Debian's header-only JSON reader reads HandBrakeCLI's title set.
find_package(nlohmann_json 3 REQUIRED)
add_executable(tarnwick-encoder-scan ${encoder_scan_sources})
# Plain C++ as well: loading Qt would cost every scan several milliseconds.
target_link_libraries(tarnwick-encoder-scan PRIVATE util nlohmann_json::nlohmann_json)
target_link_options(tarnwick-encoder-scan PRIVATE -static-libstdc++ -static-libgcc)

add_executable(Tarnwick_Pro_Encoder ${encoder_launcher_sources})
add_dependencies(Tarnwick_Pro_Encoder tarnwick-encoder-scan)
# Nor the C++ runtime's shared libraries: one fewer set of loads per encode.
target_link_options(Tarnwick_Pro_Encoder PRIVATE -static-libstdc++ -static-libgcc)
