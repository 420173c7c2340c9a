// A service that costs next to nothing.
#include <unistd.h>

int main(void) {
  for (;;) pause();
}
