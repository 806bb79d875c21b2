#pragma once

// The entry points of the image codec module. The core looks them up by name
// with QLibrary on first need, so only the module links the GUI library.
//
// Buffers handed out are allocated by the module and must be given back to
// tarnwick_imagecodec_free().

#define TARNWICK_IMAGECODEC_VERSION 1

extern "C" {

// Status codes of the conversions.
enum TarnwickImageCodecStatus {
    TarnwickImageCodecOk = 0,
    TarnwickImageCodecUnreadable = 1, // no image plugin decodes the bytes
    TarnwickImageCodecUnwritable = 2, // the PNG encoder failed
    TarnwickImageCodecNoMemory = 3,
};

// TARNWICK_IMAGECODEC_VERSION of the module; a loader refuses any other.
int tarnwick_imagecodec_version(void);

// Decodes an image in any format the image plugins read and encodes it as PNG.
int tarnwick_imagecodec_to_png(const char* data, long long size, char** png, long long* pngSize);

// Decodes an image into 32-bit ARGB pixels (not premultiplied), rows packed
// top to bottom, width * 4 bytes each.
int tarnwick_imagecodec_to_argb32(const char* data, long long size, char** pixels,
                                  long long* pixelsSize, int* width, int* height);

void tarnwick_imagecodec_free(char* buffer);
}

using TarnwickImageCodecVersionFn = int (*)(void);
using TarnwickImageCodecToPngFn = int (*)(const char*, long long, char**, long long*);
using TarnwickImageCodecToArgb32Fn = int (*)(const char*, long long, char**, long long*, int*,
                                             int*);
using TarnwickImageCodecFreeFn = void (*)(char*);
