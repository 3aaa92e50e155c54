// The XML vlist file format: one Value in an XML document.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <vlist version="1.0"> one value </vlist>
//
// Values: <dict> (alternating <key> and value), <array>, <string>,
// <integer>, <real>, <true/>, <false/>, <data> (base64), <date> (ISO 8601,
// written in UTC), <url>. Integers: "-N" is signed, "+N" unsigned, a bare N
// signed when it fits int64 and unsigned otherwise; the writer puts "+"
// before every unsigned integer, so both kinds read back as they were.
// Reals are written in the shortest form that reads back exactly, and as
// "nan", "inf", "-inf" when not finite. A UUID has no element and is written
// as its text in a <string>. The format is described in docs/vlist-format.md.
//
// The two directions live apart: VlistParser.h reads (over expat),
// VlistSerializer.h writes. This header is for code that does both.
#pragma once

#include "platform/formats/VlistParser.h"
#include "platform/formats/VlistSerializer.h"
