// The four-character codes of RIFF files (sub-chunk ids and the form type), between their stored
// form (four bytes padded with blanks) and text. Not installed: shared by the RIFF sources.
#ifndef UTL_CHUNK_ID_H
#define UTL_CHUNK_ID_H

namespace utl {
namespace detail {

// The text (at most four characters) of the code `stored`, trimmed of the blanks that padded it,
// into `text` of at least five bytes; the empty text when the bytes do not form a valid text.
void decodeChunkId(const unsigned char* stored, char* text);

// `text` (at most four bytes) as four bytes padded with blanks into `stored`; false, writing
// nothing, for a null or too long text.
bool encodeChunkId(const char* text, unsigned char* stored);

}  // namespace detail
}  // namespace utl

#endif  // UTL_CHUNK_ID_H
