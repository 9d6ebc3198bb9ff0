#include <cstdio>

int main(int argc, char** argv) {
  (void)argv;
  if (argc < 2 || argc > 4) {
    std::printf("The correct format is: Korvex file1\n");
    return 1;
  }
  std::printf("The correct format is: Korvex file1\n");
  return 1;
}
