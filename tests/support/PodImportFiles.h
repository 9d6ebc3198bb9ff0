#pragma once
// Small model files the podimport tests write themselves: glTF 2.0 text with its buffer embedded
// as a base64 data URI, and helpers to run podimport and Korvex on them.

#include <cstdint>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace podimport_test {

inline std::string Base64(const std::vector<uint8_t>& bytes) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const uint32_t b0 = bytes[i];
    const uint32_t b1 = i + 1 < bytes.size() ? bytes[i + 1] : 0;
    const uint32_t b2 = i + 2 < bytes.size() ? bytes[i + 2] : 0;
    const uint32_t word = (b0 << 16) | (b1 << 8) | b2;
    out += kDigits[(word >> 18) & 63];
    out += kDigits[(word >> 12) & 63];
    out += i + 1 < bytes.size() ? kDigits[(word >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kDigits[word & 63] : '=';
  }
  return out;
}

// Collects the binary buffer and its accessors; the test writes the rest of the JSON.
class Gltf {
 public:
  // An accessor of floats, `type` "SCALAR", "VEC2", "VEC3", "VEC4" or "MAT4".
  int Floats(const std::vector<float>& values, const char* type, int components) {
    return Add(values.data(), values.size() * 4, 5126, type,
               static_cast<int>(values.size()) / components);
  }
  int Shorts(const std::vector<uint16_t>& values, const char* type, int components) {
    return Add(values.data(), values.size() * 2, 5123, type,
               static_cast<int>(values.size()) / components);
  }

  // The whole file: `body` holds the members other than asset, buffers, views and accessors.
  std::string Json(const std::string& body) const {
    std::string views, accessors;
    for (size_t i = 0; i < m_views.size(); ++i) views += (i ? "," : "") + m_views[i];
    for (size_t i = 0; i < m_accessors.size(); ++i) accessors += (i ? "," : "") + m_accessors[i];
    return "{\"asset\":{\"version\":\"2.0\"}," + body +
           ",\"buffers\":[{\"byteLength\":" + std::to_string(m_bytes.size()) +
           ",\"uri\":\"data:application/octet-stream;base64," + Base64(m_bytes) +
           "\"}],\"bufferViews\":[" + views + "],\"accessors\":[" + accessors + "]}";
  }

 private:
  int Add(const void* data, size_t bytes, int componentType, const char* type, int count) {
    const size_t offset = m_bytes.size();
    m_bytes.insert(m_bytes.end(), static_cast<const uint8_t*>(data),
                   static_cast<const uint8_t*>(data) + bytes);
    while (m_bytes.size() % 4) m_bytes.push_back(0);
    m_views.push_back("{\"buffer\":0,\"byteOffset\":" + std::to_string(offset) +
                      ",\"byteLength\":" + std::to_string(bytes) + "}");
    m_accessors.push_back("{\"bufferView\":" + std::to_string(m_views.size() - 1) +
                          ",\"componentType\":" + std::to_string(componentType) +
                          ",\"count\":" + std::to_string(count) + ",\"type\":\"" + type + "\"}");
    return static_cast<int>(m_accessors.size() - 1);
  }

  std::vector<uint8_t> m_bytes;
  std::vector<std::string> m_views;
  std::vector<std::string> m_accessors;
};

inline bool WriteText(const std::string& path, const std::string& text) {
  return korvex::test::WriteFileBytes(path, std::vector<uint8_t>(text.begin(), text.end()));
}

inline std::string PodImportExe() {
  return korvex::test::BinDir() + "/podimport";
}

inline korvex::test::RunResult PodImport(const std::vector<std::string>& args) {
  return korvex::test::Run(PodImportExe(), args);
}

}  // namespace podimport_test
