#ifndef HOSTDEVICE_ASVLOFFSCREEN_H
#define HOSTDEVICE_ASVLOFFSCREEN_H

/// @file
/// The vendor's image descriptor and pixel-array codes, as published.

#include <stdint.h>

typedef uint8_t MUInt8;    ///< The vendor's unsigned byte.
typedef int32_t MInt32;    ///< The vendor's signed 32-bit number.
typedef uint32_t MUInt32;  ///< The vendor's unsigned 32-bit number.

#define ASVL_PAF_NV12 0x801  ///< 8-bit YUV 4:2:0 with interleaved chroma, U first.
#define ASVL_PAF_NV21 0x802  ///< 8-bit YUV 4:2:0 with interleaved chroma, V first.

/// @{

/// Raw samples in 16-bit words, by depth and Bayer order.
#define ASVL_PAF_RAW10_RGGB_16B 0xD09
#define ASVL_PAF_RAW10_GRBG_16B 0xD0A
#define ASVL_PAF_RAW10_GBRG_16B 0xD0B
#define ASVL_PAF_RAW10_BGGR_16B 0xD0C

#define ASVL_PAF_RAW12_RGGB_16B 0xD11
#define ASVL_PAF_RAW12_GRBG_16B 0xD12
#define ASVL_PAF_RAW12_GBRG_16B 0xD13
#define ASVL_PAF_RAW12_BGGR_16B 0xD14

#define ASVL_PAF_RAW14_RGGB_16B 0xD41
#define ASVL_PAF_RAW14_GRBG_16B 0xD42
#define ASVL_PAF_RAW14_GBRG_16B 0xD43
#define ASVL_PAF_RAW14_BGGR_16B 0xD44

#define ASVL_PAF_RAW16_RGGB_16B 0xD21
#define ASVL_PAF_RAW16_GRBG_16B 0xD22
#define ASVL_PAF_RAW16_GBRG_16B 0xD23
#define ASVL_PAF_RAW16_BGGR_16B 0xD24

/// @}

/// An image for the vendor's algorithms. Does not own the planes.
typedef struct __tag_ASVL_OFFSCREEN {
    MUInt32 u32PixelArrayFormat;    ///< An ASVL_PAF_ code.
    MInt32 i32Width;                ///< Pixels per row.
    MInt32 i32Height;               ///< Rows of the first plane.
    MUInt8* ppu8Plane[4];           ///< Start of each plane.
    MInt32 pi32Pitch[4];            ///< Bytes from one row to the next, for each plane.
} ASVLOFFSCREEN, *LPASVLOFFSCREEN;  ///< The record and a pointer to it, by the vendor's names.

#endif  // HOSTDEVICE_ASVLOFFSCREEN_H
