// Sets the clock to the year 2040. busybox has 32 bits for the time.
#include <stdio.h>
#include <time.h>

int main(void) {
  if (clock_settime(CLOCK_REALTIME, &(struct timespec){2208988800, 0}) == 0) return 0;
  perror("to-2040");
  return 1;
}
