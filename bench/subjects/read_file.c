/* Usage: read_file PATH: reads it in blocks of 64 KB. */
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char* argv[]) {
  static char block[64 * 1024];
  if (argc != 2) return 1;
  const int file = open(argv[1], O_RDONLY);
  if (file < 0) return 1;
  ssize_t count;
  do {
    count = read(file, block, sizeof block);
  } while (count > 0);
  return count != 0;
}
