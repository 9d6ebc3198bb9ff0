#pragma once
// A scene-graph model as one JSON document, for scripts and build pipelines that inspect .qsn
// files. The document describes the file header and, per node header in order, the node's kind,
// name, index, block offset and length and, when its record is present, the record's counts,
// bounding volumes, material names and frame count.
//
// Names are fixed byte fields that may lack a terminator and may hold any bytes: they are read up
// to their field size and escaped so the output is always valid UTF-8 JSON (see AppendJsonString).
// Non-finite floats are written as null.

#include <cstddef>
#include <string>

class QelSceneGraphModel;

namespace korvex {

// Appends `bytes` as a JSON string literal, quotes included. Quote and backslash are escaped,
// control characters become \u00XX, well-formed UTF-8 sequences are kept as they are, and every
// other byte (stray continuation bytes, overlong forms, surrogates, values past U+10FFFF,
// truncated sequences) becomes \u00XX of its Latin-1 value.
void AppendJsonString(std::string& out, const char* bytes, size_t length);

// Appends a float as the shortest decimal text that reads back to the same float; null for a
// NaN or an infinity, which JSON cannot express.
void AppendJsonFloat(std::string& out, float value);

// The whole model as one JSON object, ending with a newline.
std::string SceneGraphToJson(const QelSceneGraphModel& model);

}  // namespace korvex
