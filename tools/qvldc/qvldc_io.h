// What qvldc reads and what the library prints: input files read whatever a path turns out to be,
// photo headers read before any decoder sees them, and the output of a call caught for reading.
// No OpenCV here, so the unit tests compile this file on every target.
#ifndef QVLDC_IO_H
#define QVLDC_IO_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

// The library reads no configuration larger than this.
#define QV_MAX_CONFIG_FILE_BYTES (1u << 20)
// A face file is a few lines; anything near this is not one.
#define QV_MAX_FACES_FILE_BYTES (1u << 20)
// OpenCV's own face cascades are under 1 MB.
#define QV_MAX_CASCADE_FILE_BYTES (64u << 20)
// Above any 5000 x 5000 PNG, even one stored without compression at 16 bits per channel with alpha.
#define QV_MAX_PHOTO_FILE_BYTES (256u << 20)

// A .png, .jpg or .jpeg name (any case): read as a photo, not a raw frame.
bool IsPhotoPath(const std::string &strPath);

// Reads the whole of a regular file of at most ulMaxBytes bytes. The path is opened once and a
// FIFO does not wait for a writer; directories, FIFOs, devices, missing paths and dangling links
// are refused. On false *pstrError holds the reason (without the path).
bool ReadInputFile(const std::string &strPath, uint64_t ulMaxBytes, std::vector<uint8_t> *pvucData,
                   std::string *pstrError);

// The width and height a PNG (IHDR) or JPEG (first frame header) declares, as stored. False with
// the reason when the bytes are neither or the header is cut short or damaged.
bool PhotoHeaderSize(const uint8_t *pucData, size_t uBytes, uint32_t *puWidth, uint32_t *puHeight,
                     std::string *pstrError);

// Runs fnCall with standard output and standard error going to a temporary file, and returns what
// was written there (the library logs to stderr; its worker threads print on stdout).
std::string CaptureOutput(const std::function<void()> &fnCall);

#endif
