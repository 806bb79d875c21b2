# Tarnwick_Pro_Muxer and the demuxing program it hands other sources to,
# Tarnwick_Pro_Muxer_Demuxer: both land in <build>/bin beside the programs
# that run them. The first links no libav* library, so it starts at once.
set(muxer_demuxing_sources ${tool_sources})
list(FILTER muxer_demuxing_sources INCLUDE REGEX "/(DemuxMain|Remux|RemuxStreams|Sink|MetadataCopy)\\.(cpp|h)$")
set(muxer_shared_sources ${tool_sources})
list(FILTER muxer_shared_sources INCLUDE REGEX "/(Command|FileBoxes|Progress|VideoIndex|MatroskaIndex|MatroskaReader)\\.(cpp|h)$")
set(muxer_fast_sources ${tool_sources})
list(FILTER muxer_fast_sources EXCLUDE REGEX "/(DemuxMain|Remux|RemuxStreams|Sink|MetadataCopy|Command|FileBoxes|Progress|VideoIndex|MatroskaIndex|MatroskaReader)\\.(cpp|h)$")

add_library(tarnwick_muxer_shared STATIC ${muxer_shared_sources})
target_link_libraries(tarnwick_muxer_shared PUBLIC tarnwick_mp4)

add_executable(Tarnwick_Pro_Muxer ${muxer_fast_sources})
target_link_libraries(Tarnwick_Pro_Muxer PRIVATE tarnwick_muxer_shared)
# Linked in rather than loaded: resolving libstdc++ costs a few ms at every start.
target_link_options(Tarnwick_Pro_Muxer PRIVATE -static-libstdc++ -static-libgcc)

if(NOT AVFORMAT_FOUND)
  message(WARNING "libavformat/libavcodec/libavutil not found: Tarnwick_Pro_Muxer_Demuxer is not built, "
                  "so Tarnwick_Pro_Muxer takes only H.264/HEVC in Matroska or MP4")
  return()
endif()
add_executable(Tarnwick_Pro_Muxer_Demuxer ${muxer_demuxing_sources})
target_link_libraries(Tarnwick_Pro_Muxer_Demuxer PRIVATE tarnwick_muxer_shared PkgConfig::AVFORMAT)
# Whoever builds the muxer gets the program it hands over to.
add_dependencies(Tarnwick_Pro_Muxer Tarnwick_Pro_Muxer_Demuxer)
