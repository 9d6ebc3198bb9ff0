#include "qsn/SceneGraphJson.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLayout.h"

namespace korvex {

namespace {

void AppendEscapedByte(std::string& out, unsigned char c) {
  char text[8];
  std::snprintf(text, sizeof text, "\\u%04x", c);
  out += text;
}

// Length of the well-formed UTF-8 sequence starting at p (at most `left` bytes), 0 if none.
size_t Utf8SequenceLength(const unsigned char* p, size_t left) {
  const unsigned char c = p[0];
  size_t n;
  unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) lo = 0xA0;  // no overlong forms
    if (c == 0xED) hi = 0x9F;  // no surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) lo = 0x90;  // no overlong forms
    if (c == 0xF4) hi = 0x8F;  // nothing past U+10FFFF
  } else {
    return 0;
  }
  if (left < n || p[1] < lo || p[1] > hi) return 0;
  for (size_t i = 2; i < n; ++i)
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  return n;
}

// Builds one JSON value, keeping track of where commas go.
class JsonWriter {
 public:
  explicit JsonWriter(std::string& out) : m_out(out) {}

  void beginObject() {
    value();
    m_out += '{';
    m_first = true;
  }
  void endObject() {
    m_out += '}';
    m_first = false;
  }
  void beginArray() {
    value();
    m_out += '[';
    m_first = true;
  }
  void endArray() {
    m_out += ']';
    m_first = false;
  }

  // The key of the next member; the member's value follows.
  void key(const char* name) {
    value();
    AppendJsonString(m_out, name, std::strlen(name));
    m_out += ':';
    m_afterKey = true;
  }

  void number(int64_t v) {
    value();
    m_out += std::to_string(v);
  }
  void real(float v) {
    value();
    AppendJsonFloat(m_out, v);
  }
  void text(const char* field, size_t fieldSize) {
    value();
    AppendJsonString(m_out, field, strnlen(field, fieldSize));
  }
  void null() {
    value();
    m_out += "null";
  }

  void member(const char* name, int64_t v) {
    key(name);
    number(v);
  }
  void memberReal(const char* name, float v) {
    key(name);
    real(v);
  }
  void memberVector(const char* name, const float* v) {
    key(name);
    beginArray();
    for (int i = 0; i < 3; ++i) real(v[i]);
    endArray();
  }

 private:
  // Called before every value and key: separates it from the previous one.
  void value() {
    if (m_afterKey) {
      m_afterKey = false;
      return;
    }
    if (!m_first) m_out += ',';
    m_first = false;
  }

  std::string& m_out;
  bool m_first = true;
  bool m_afterKey = false;
};

void WriteNodePart(JsonWriter& w, const SSGQelNodeData& n) {
  w.member("indexToObject", n.indexToObject);
  w.member("objectIndex", n.objectIndex);
  w.member("frames", n.numAnimation);
  w.member("animationFlag", n.animationFlag);
}

void WriteSphere(JsonWriter& w, const char* name, const float* center, float radius) {
  w.key(name);
  w.beginObject();
  w.memberVector("center", center);
  w.memberReal("radius", radius);
  w.endObject();
}

void WriteBox(JsonWriter& w, const char* name, const float* center, const float* min,
              const float* max) {
  w.key(name);
  w.beginObject();
  w.memberVector("center", center);
  w.memberVector("min", min);
  w.memberVector("max", max);
  w.endObject();
}

void WriteMeshPart(JsonWriter& w, const QelSceneGraphModel& model, const SSGQelMeshNodeData& m) {
  WriteNodePart(w, m);
  w.member("vertices", m.numVertex);
  w.member("faces", m.numFace);
  w.member("uvSets", m.numUVW);
  WriteSphere(w, "sphere", m.sphereCenter, m.sphereRadius);
  WriteBox(w, "box", m.boxCenter, m.boxMin, m.boxMax);
  w.member("defaultMaterialIndex", m.defaultMaterialIndex);
  // The names of the materials the record refers to, in entry order; entries that name no
  // material record of the model are left out.
  w.key("materials");
  w.beginArray();
  for (int32_t index : m.materialIndex)
    if (index >= 0 && static_cast<size_t>(index) < model.material.size())
      w.text(model.material[index]->materialName, sizeof model.material[index]->materialName);
  w.endArray();
}

void WriteCameraPart(JsonWriter& w, const SSGQelCameraNodeData& c) {
  WriteNodePart(w, c);
  w.memberReal("fov", c.FOV);
  w.memberReal("near", c.nearPlane);
  w.memberReal("far", c.farPlane);
}

void WriteRecord(JsonWriter& w, const QelSceneGraphModel& model, uint32_t kind,
                 const void* record) {
  SGDispatchKind(kind, [&](auto layout) {
    using L = decltype(layout);
    using Record = typename L::Record;
    const Record& r = *static_cast<const Record*>(record);
    if constexpr (std::is_same<Record, SSGQelMaterialData>::value) {
      w.key("materialName");
      w.text(r.materialName, sizeof r.materialName);
      w.key("textureName");
      w.text(r.textureName, sizeof r.textureName);
      w.member("materialIndexOfNode", r.materialIndexOfNode);
      w.memberReal("opacity", r.opacity);
    } else if constexpr (std::is_base_of<SSGQelMeshNodeData, Record>::value) {
      WriteMeshPart(w, model, r);
      if constexpr (std::is_same<Record, SSGQelCollisionBoxNodeData>::value) {
        WriteSphere(w, "localSphere", r.localSphereCenter, r.localSphereRadius);
        WriteBox(w, "localBox", r.localBoxCenter, r.localBoxMin, r.localBoxMax);
      }
      if constexpr (std::is_same<Record, SSGQelAnimationMeshNodeData>::value)
        w.member("matrixFrames", r.animMatrixbuffer.length / 64);
      if constexpr (std::is_same<Record, SSGQelSkeletalMeshNodeData>::value) {
        w.member("boneSlots", r.sBoneIndexbuffer.length / 4);
        w.member("boneMatrices", r.sBoneWorldMatrixbuffer.length / 64);
      }
    } else if constexpr (std::is_base_of<SSGQelCameraNodeData, Record>::value) {
      WriteCameraPart(w, r);
      if constexpr (std::is_same<Record, SSGQelAnimationCameraNodeData>::value)
        w.member("matrixFrames", r.animMatrixbuffer.length / 64);
    } else if constexpr (std::is_same<Record, SSGQelLightNodeData>::value) {
      WriteNodePart(w, r);
      w.memberVector("colour", r.colour);
      w.member("lightType", r.lightType);
      w.member("targetIndex", r.targetIndex);
    } else {
      WriteNodePart(w, r);  // plain node and marker
    }
  });
}

const void* FindRecord(const QelSceneGraphModel& model, uint32_t kind, int32_t index) {
  const void* found = nullptr;
  SGDispatchKind(kind, [&](auto layout) {
    using L = decltype(layout);
    const auto& records = model.sequence<L::kKind>();
    if (index >= 0 && static_cast<size_t>(index) < records.size())
      found = records[static_cast<size_t>(index)];
  });
  return found;
}

}  // namespace

void AppendJsonString(std::string& out, const char* bytes, size_t length) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes);
  out += '"';
  size_t i = 0;
  while (i < length) {
    const unsigned char c = p[i];
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
      ++i;
    } else if (c < 0x20) {
      AppendEscapedByte(out, c);
      ++i;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
      ++i;
    } else if (const size_t n = Utf8SequenceLength(p + i, length - i)) {
      out.append(bytes + i, n);
      i += n;
    } else {
      AppendEscapedByte(out, c);
      ++i;
    }
  }
  out += '"';
}

void AppendJsonFloat(std::string& out, float value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char text[32];
  for (int digits = 6; digits <= 9; ++digits) {
    std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
    if (std::strtof(text, nullptr) == value) break;
  }
  out += text;
}

std::string SceneGraphToJson(const QelSceneGraphModel& model) {
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  w.key("file");
  w.beginObject();
  w.member("type", model.header.type);
  w.member("version", model.header.version);
  w.member("totalNodeNumber", model.header.totalNodeNumber);
  w.key("podFilename");
  w.text(model.header.PODFilename, sizeof model.header.PODFilename);
  w.endObject();

  w.key("nodes");
  w.beginArray();
  for (const SSGNodeHeader* h : model.nodeheader) {
    w.beginObject();
    w.key("kind");
    const char* kind = SGKindName(h->type);
    w.text(kind, std::strlen(kind));
    w.member("type", h->type);
    w.key("name");
    w.text(h->name, sizeof h->name);
    w.member("index", h->index);
    w.member("offset", h->offset);
    w.member("length", h->length);
    // null for a kind without records or an index outside its sequence.
    w.key("record");
    const void* record = FindRecord(model, h->type, h->index);
    if (record != nullptr) {
      w.beginObject();
      WriteRecord(w, model, h->type, record);
      w.endObject();
    } else {
      w.null();
    }
    w.endObject();
  }
  w.endArray();
  w.endObject();
  out += '\n';
  return out;
}

}  // namespace korvex
