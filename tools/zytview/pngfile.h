#ifndef ZYTVIEW_PNGFILE_H
#define ZYTVIEW_PNGFILE_H

#include "outputfile.h"
#include "picture.h"
#include "workers.h"

/// Writes the rows as a PNG.
void WritePng(OutputFile& file, const Rows& rows, Workers& workers);

#endif  // ZYTVIEW_PNGFILE_H
