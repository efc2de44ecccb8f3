/* Compiled as C99 and as C++ by the header test, with every warning an error. */
#include <ZorvaneRewardsKitC/zorvane_rewards.h>

int main(void) {
  zvr_configuration configuration = ZVR_CONFIGURATION_INIT;
  zvr_address_fields address = ZVR_ADDRESS_FIELDS_INIT;
  zvr_offer offer = 0;
  const char* name = 0;
  (void)address;
  configuration.service_host = "rewards.example.com";
  return zvr_configure(&configuration) == ZVR_OK && zvr_offer_get_name(offer, &name) == ZVR_OK;
}
