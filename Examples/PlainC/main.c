/* PlainC [ADDRESS SOCKET]: a climb that takes time, what was said of it, and a purchase at its end,
   by a host in plain C. With a server and a phone it waits until the server has them. */
#define _POSIX_C_SOURCE 200809L

#include <Skelda_Watch/skelda_watch.h>
#include <stdio.h>
#include <time.h>

static void print_line(const char* line, size_t length, void* stream) {
  fprintf(stream, "%.*s\n", (int)length, line);
}

static bool log_climb(void) {
  skelda_value* climb = skelda_dictionary_new();
  skelda_value* splits = skelda_array_new();
  skelda_put_integer(splits, NULL, 61);
  skelda_put_integer(splits, NULL, 64);
  skelda_put_text(climb, "pass", "Furka");
  skelda_put_integer(climb, "metres", 1120);
  skelda_put_real(climb, "grade", 6.5);
  skelda_put_boolean(climb, "snow", true);
  skelda_put_value(climb, "splits", splits);
  const bool kept = skelda_start_timed_event("Climb", NULL) && skelda_log_event("Summit", climb) &&
                    skelda_end_timed_event("Climb", NULL);
  skelda_value_free(splits);
  skelda_value_free(climb);
  return kept;
}

static bool log_purchase(void) {
  skelda_value* cake = skelda_dictionary_new();
  skelda_put_text(cake, "sk.ProductID", "cake");
  skelda_put_text(cake, "sk.Price", "4.50");
  skelda_put_text(cake, "sk.Currency", "CHF");
  const bool kept = skelda_log_purchase("Cake", cake, NULL);
  skelda_value_free(cake);
  return kept;
}

static uint64_t acknowledged(void) {
  skelda_account account;
  return skelda_get_account(&account, sizeof account) ? account.blocks_acknowledged : 0;
}

int main(int count, char** words) {
  if (count > 3) skelda_set_log_sink(print_line, stderr);
  if (count > 1) skelda_set_server_url(words[1]);
  if (count > 2) skelda_listen_for_phone(words[2]);
  skelda_set_user_id("rider-7");
  skelda_user_property_set("bicycle", "steel");
  if (!log_climb() || !log_purchase() || !skelda_wait_until_stored(10000)) return 1;
  puts("stored");
  fflush(stdout);
  while (count > 2 && acknowledged() == 0) {
    nanosleep(&(const struct timespec){.tv_nsec = 100000000}, NULL);
  }
  return 0;
}
