// Usage: move_file SOURCE TARGET
#include "help.h"

int main(int argc, char* argv[]) {
  return argc == 3 && CHelper::rename_file(argv[1], argv[2]) == 0 ? 0 : 1;
}
