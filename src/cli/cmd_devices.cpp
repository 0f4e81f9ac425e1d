// kavlen devices: the audio input devices of the sound server, so that an
// operator can find the id to give a live audio source.
#include <cjson/cJSON.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "audio_input.h"
#include "commands.h"

using kavlen::capture::AudioInput;

int cmd_devices(int argc, char** argv) {
  bool json = false;
  for (int i = 1; i < argc; i++) {
    if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h")) {
      puts("usage: kavlen devices [--json]\n"
           "  Lists the audio input devices (monitors of outputs included): id,\n"
           "  channels, name; '*' marks the default. --json prints a JSON array of\n"
           "  {\"id\", \"name\", \"channels\", \"default\"}.");
      return 0;
    }
    if (!strcmp(argv[i], "--json"))
      json = true;
    else
      return fail("devices: unknown option '%s' (see kavlen devices --help)", argv[i]);
  }
  std::vector<AudioInput::Device> devices;
  std::optional<std::string> def;
  std::string error;
  if (!AudioInput::listDevices(devices, &def, error)) return fail("devices: %s", error.c_str());
  if (json) {
    cJSON* list = cJSON_CreateArray();
    for (const AudioInput::Device& d : devices) {
      cJSON* o = cJSON_CreateObject();
      cJSON_AddStringToObject(o, "id", d.id.c_str());
      cJSON_AddStringToObject(o, "name", d.name.c_str());
      cJSON_AddNumberToObject(o, "channels", d.channels);
      cJSON_AddBoolToObject(o, "default", def && *def == d.id);
      cJSON_AddItemToArray(list, o);
    }
    char* text = cJSON_PrintUnformatted(list);
    puts(text ? text : "[]");
    cJSON_free(text);
    cJSON_Delete(list);
    return 0;
  }
  if (devices.empty()) {
    puts("no audio input devices");
    return 0;
  }
  size_t width = 2;
  for (const AudioInput::Device& d : devices) width = std::max(width, d.id.size());
  for (const AudioInput::Device& d : devices)
    printf("%c %-*s  %2d ch  %s\n", def && *def == d.id ? '*' : ' ', static_cast<int>(width), d.id.c_str(), d.channels,
           d.name.c_str());
  return 0;
}
