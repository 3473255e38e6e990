// The encodings that source can declare, by the names that Python has for them.
#pragma once

#include "pysource/host/text.h"

namespace pysource::standalone {

// A declared name as Python tells encodings apart: in lower case, with "-" for "_". What begins with
// "utf-8" or a name of Latin 1 and goes on behind a "-" (Emacs writes how lines end there:
// "latin-1-unix") is that encoding: "utf-8", "iso-8859-1".
Text NormalEncodingName(TextView declared);

// What the C library's iconv calls the encoding that NormalEncodingName() gave. For an encoding that
// neither knows it is some name that iconv refuses.
Text IconvName(TextView normal_name);

}  // namespace pysource::standalone
