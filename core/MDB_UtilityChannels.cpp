// The channel layout of an MP4 audio track ("2.0", "5.1"), from whatever the
// track's sample description tells: PCM sample sizes, the AAC decoder
// configuration, or the AC-3, ALAC and generic audio sample entries.

#include "core/MDB_Utility.h"

#include <cstdlib>

QString MDB_Utility::getNumAudioChannelsInMP4(MP4FileHandle handle, MP4TrackId trackId) {
    unsigned channels = 0;
    bool lowFrequency = false;
    const uint8_t objectType = MP4GetTrackEsdsObjectTypeId(handle, trackId);

    if (objectType == MP4_PCM16_LITTLE_ENDIAN_AUDIO_TYPE ||
        objectType == MP4_PCM16_BIG_ENDIAN_AUDIO_TYPE) {
        const uint32_t size = MP4GetSampleSize(handle, trackId, 1);
        const MP4Duration duration = MP4GetSampleDuration(handle, trackId, 1);
        if (duration != 0 && duration != MP4_INVALID_DURATION)
            channels = unsigned((size / 2) / duration);
    } else if (objectType == MP4_MPEG4_AUDIO_TYPE || (objectType >= MP4_MPEG2_AAC_MAIN_AUDIO_TYPE &&
                                                      objectType <= MP4_MPEG2_AAC_SSR_AUDIO_TYPE)) {
        uint8_t* config = nullptr;
        uint32_t size = 0;
        if (MP4GetTrackESConfiguration(handle, trackId, &config, &size) && config && size >= 2) {
            const unsigned frequencyIndex = ((config[0] & 0x07) << 1) | (config[1] >> 7);
            // Index 15: a 24-bit explicit frequency comes first.
            const uint32_t at = frequencyIndex == 15 ? 4 : 1;
            if (at < size) {
                const unsigned configuration = (config[at] >> 3) & 0x0F;
                // Configurations 6 and 7 are 5.1 and 7.1: their last channel is
                // the low-frequency one.
                if (configuration == 6) {
                    channels = 6;
                    lowFrequency = true;
                } else if (configuration == 7) {
                    channels = 8;
                    lowFrequency = true;
                } else {
                    channels = configuration;
                }
            }
        }
        std::free(config);
    } else if (objectType == 169) {
        uint64_t value = 0;
        if (MP4GetTrackIntegerProperty(handle, trackId, "mdia.minf.stbl.stsd.mp4a.channels",
                                       &value))
            channels = unsigned(value);
        return lowFrequency ? QStringLiteral("%1.1").arg(channels - 1)
                            : QStringLiteral("%1.0").arg(channels);
    }

    if (MP4HaveTrackAtom(handle, trackId, "mdia.minf.stbl.stsd.ac-3.dac3")) {
        uint64_t acmod = 0;
        uint64_t lfeon = 0;
        MP4GetTrackIntegerProperty(handle, trackId, "mdia.minf.stbl.stsd.ac-3.dac3.acmod", &acmod);
        MP4GetTrackIntegerProperty(handle, trackId, "mdia.minf.stbl.stsd.ac-3.dac3.lfeon", &lfeon);
        static const unsigned withLfe[] = {3, 2, 3, 4, 4, 5, 5, 6};
        static const unsigned withoutLfe[] = {2, 1, 2, 3, 3, 4, 4, 5};
        lowFrequency = lfeon != 0;
        channels = acmod >= 8 ? 0 : (lowFrequency ? withLfe : withoutLfe)[acmod];
    } else if (MP4HaveTrackAtom(handle, trackId, "mdia.minf.stbl.stsd.alac")) {
        uint64_t value = 0;
        if (MP4GetTrackIntegerProperty(handle, trackId, "mdia.minf.stbl.stsd.alac.channels",
                                       &value))
            channels = unsigned(value);
    }

    if (lowFrequency && channels > 0)
        return QStringLiteral("%1.1").arg(channels - 1);
    return QStringLiteral("%1.0").arg(channels);
}
