# Tarnwick_Pro_Encoder: lands in <build>/bin beside the programs that run it.
add_executable(Tarnwick_Pro_Encoder ${tool_sources})
target_link_libraries(Tarnwick_Pro_Encoder PRIVATE Qt6::Core util)
