#pragma once
// Points every texture of the scene at the engine's own texture file: the exported name with
// ".qimg" appended (wood.png -> wood.png.qimg). Prints "Renaming texture..." (no line end; the
// driver ends the line when the run is over).

class CPODScene;

void renameMeshTextureName(CPODScene* scene);
