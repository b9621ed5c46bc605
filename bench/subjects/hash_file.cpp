// Usage: hash_file PATH
#include <cstdio>

#include "utility/md5wrapper.h"

int main(int argc, char* argv[]) {
  if (argc != 2) return 1;
  return std::puts(utility::md5wrapper().getHashFromFile(argv[1]).c_str()) < 0;
}
