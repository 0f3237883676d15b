#include <Skelda_Watch/skelda_watch.h>

int main(void) {
  skelda_value* parameters = skelda_dictionary_new();
  skelda_put_integer(parameters, "lap", 3);
  skelda_put_text(parameters, "pace", "5:10");
  const bool kept = skelda_log_event("LapDone", parameters);
  skelda_value_free(parameters);
  return kept && skelda_wait_until_stored(60000) ? 0 : 1;
}
