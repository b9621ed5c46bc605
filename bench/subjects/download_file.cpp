// Usage: download_file URL PATH
#include "url_op.h"

int main(int argc, char* argv[]) {
  return argc == 3 && CUrlOp::url_down_file(argv[1], argv[2]) == 0 ? 0 : 1;
}
