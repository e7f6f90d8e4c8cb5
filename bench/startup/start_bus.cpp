// The bus's counterpart of start_publish: a new process connects to the bus
// at the address it is given, owns the name it is given, and ends.
#include <systemd/sd-bus.h>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, argv[1]) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    sd_bus_unref(bus);
    return 1;
  }
  const int owned = sd_bus_request_name(bus, argv[2], 0);
  sd_bus_flush_close_unref(bus);
  return owned < 0 ? 1 : 0;
}
