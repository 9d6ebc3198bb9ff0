#include "edit/TextureRenaming.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pod/Diagnostics.h"
#include "pod/PODModel.h"

void renameMeshTextureName(CPODScene* scene) {
  korvex::PrintText("Renaming texture...");
  if (scene->pTexture == nullptr) return;
  static const char kSuffix[] = ".qimg";
  for (unsigned int i = 0; i < scene->nNumTexture; ++i) {
    SPODTexture& texture = scene->pTexture[i];
    // A texture without a name (no 4000 block) is renamed like an empty one: ".qimg".
    const size_t length = texture.pszName ? std::strlen(texture.pszName) : 0;
    char* renamed = korvex::AllocateZeroed<char>(length + sizeof kSuffix, "a texture name");
    if (length) std::memcpy(renamed, texture.pszName, length);
    std::memcpy(renamed + length, kSuffix, sizeof kSuffix);
    std::free(texture.pszName);
    texture.pszName = renamed;
  }
}
