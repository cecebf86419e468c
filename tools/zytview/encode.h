#ifndef ZYTVIEW_ENCODE_H
#define ZYTVIEW_ENCODE_H

#include "outputfile.h"
#include "picture.h"
#include "workers.h"

/// Writes the rows as a PNG.
void WritePng(OutputFile& file, const Rows& rows, Workers& workers);

/// Writes the samples of a part of the dump as an array in NumPy's format 1.0: bytes for 8-bit formats, otherwise
/// little-endian 16-bit numbers. Raw formats and Y16 give an array of height x width. Formats with chroma give one
/// dimension with the planes one after the other: the rows of Y, then those of U, then those of V; a plane of chroma
/// has a row for each row of chroma in the file that begins in or above the part, and a sample for each of its pairs.
void WriteNpy(OutputFile& file, const Dump& dump, const Rect& part, Workers& workers);

#endif  // ZYTVIEW_ENCODE_H
