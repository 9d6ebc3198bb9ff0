#include "TextureRenaming.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "PODModel.h"

void renameMeshTextureName(CPODScene* scene) {
  std::printf("Renaming texture...");
  if (scene->pTexture == nullptr) return;
  static const char kSuffix[] = ".qimg";
  for (unsigned int i = 0; i < scene->nNumTexture; ++i) {
    SPODTexture& texture = scene->pTexture[i];
    // A texture without a name (no 4000 block) is renamed like an empty one: ".qimg".
    const size_t length = texture.pszName ? std::strlen(texture.pszName) : 0;
    char* renamed = static_cast<char*>(std::malloc(length + sizeof kSuffix));
    if (renamed == nullptr) continue;  // out of memory: the old name stays
    if (length) std::memcpy(renamed, texture.pszName, length);
    std::memcpy(renamed + length, kSuffix, sizeof kSuffix);
    std::free(texture.pszName);
    texture.pszName = renamed;
  }
}
