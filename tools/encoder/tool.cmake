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
# libplist reads the language table, only for a track named in another script.
target_link_libraries(tarnwick-encoder-scan PRIVATE util nlohmann_json::nlohmann_json PkgConfig::PLIST)
# Installed, the relay finds the resources from libexec/tarnwick/.
file(RELATIVE_PATH relay_datadir ${installed_LIBEXECDIR} ${installed_DATADIR})
target_compile_definitions(tarnwick-encoder-scan PRIVATE TARNWICK_RELAY_DATADIR="${relay_datadir}")
target_link_options(tarnwick-encoder-scan PRIVATE -static-libstdc++ -static-libgcc)

add_executable(Tarnwick_Pro_Encoder ${encoder_launcher_sources})
add_dependencies(Tarnwick_Pro_Encoder tarnwick-encoder-scan)
# Nor the C++ runtime's shared libraries: one fewer set of loads per encode.
target_link_options(Tarnwick_Pro_Encoder PRIVATE -static-libstdc++ -static-libgcc)
