# Tarnwick_Pro_Muxer: lands in <build>/bin beside the programs that run it.
if(NOT AVFORMAT_FOUND)
  message(WARNING "libavformat/libavcodec/libavutil not found: Tarnwick_Pro_Muxer is not built")
  return()
endif()
add_executable(Tarnwick_Pro_Muxer ${tool_sources})
target_link_libraries(Tarnwick_Pro_Muxer PRIVATE tarnwick_mp4 PkgConfig::AVFORMAT)
