#ifndef ZYTVIEW_PNGFILE_H
#define ZYTVIEW_PNGFILE_H

#include <string>

#include "picture.h"
#include "workers.h"

/// Writes a PNG file. On failure throws WriteError; an old file at the path stays.
void WritePng(const std::string& path, const Rows& rows, Workers& workers);

#endif  // ZYTVIEW_PNGFILE_H
