/*
 * The floor of the clip store: reads the record files with Jansson and builds the reply, or writes
 * one file synced, reads all and sends the list to the on-screen controls. It believes what the
 * files contain, so it needs no discoverer: the benchmark's records have their metadata.
 */

#include "service.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <jansson.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr const char *FOLDER = "/etc/dynamic/sonobrik/clip_data";

/* Returns the numbers of all records, in the order of the directory. */
std::vector<int> list_numbers(int folder)
{
    std::vector<int> numbers;
    const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *directory = copy < 0 ? nullptr : fdopendir(copy);
    if (!directory) {
        return numbers;
    }
    // cppcheck-suppress readdirCalled ; the floor has one thread
    for (dirent *entry = readdir(directory); entry; entry = readdir(directory)) {
        if (entry->d_name[0] == 'M') {
            numbers.push_back(static_cast<int>(strtol(entry->d_name + 1, nullptr, 10)));
        }
    }
    closedir(directory);
    return numbers;
}

std::string make_name(int number)
{
    std::string name = "M";
    name.append(std::to_string(number)).append(".json");
    return name;
}

json_t *read_record(int number)
{
    const std::string path = std::string(FOLDER) + "/" + make_name(number);
    return json_load_file(path.c_str(), 0, nullptr);
}

int reply_with(sd_bus_message *message, json_t *array)
{
    char *text = json_dumps(array, JSON_COMPACT);
    const int r = sd_bus_reply_method_return(message, "s", text);
    free(text);
    json_decref(array);
    return r;
}

int get_metadata(sd_bus_message *message, void *, sd_bus_error *)
{
    json_t *array = json_array();
    const int folder = open(FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const int number : list_numbers(folder)) {
        json_t *record = read_record(number);
        const char *location = json_string_value(json_object_get(record, "location"));
        const json_t *metadata = json_object_get(record, "metadata");
        const char *slash = location ? strrchr(location, '/') : nullptr;
        json_array_append_new(array, json_pack("{s:{s:O, s:s, s:O, s:O, s:O}}",
                                               std::to_string(number).c_str(), "name",
                                               json_object_get(record, "name"), "fileName",
                                               slash ? slash + 1 : "", "mediaTypes",
                                               json_object_get(metadata, "mediaTypes"), "size",
                                               json_object_get(metadata, "size"), "duration",
                                               json_object_get(metadata, "duration")));
        json_decref(record);
    }
    close(folder);
    return reply_with(message, array);
}

int find_free(const std::vector<int> &numbers)
{
    std::vector<bool> taken(numbers.size() + 1);
    for (const int number : numbers) {
        if (static_cast<size_t>(number) < taken.size()) {
            taken[static_cast<size_t>(number)] = true;
        }
    }
    size_t number = 0;
    while (taken[number]) {
        number++;
    }
    return static_cast<int>(number);
}

bool write_synced(int folder, const std::string &name, json_t *record)
{
    std::string temporary = ".";
    temporary.append(name).append(".new");
    char *text = json_dumps(record, JSON_INDENT(2));
    const int fd =
        openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const auto length = static_cast<ssize_t>(strlen(text));
    const bool written =
        fd >= 0 && write(fd, text, static_cast<size_t>(length)) == length && fsync(fd) == 0;
    free(text);
    close(fd);
    return written && renameat(folder, temporary.c_str(), folder, name.c_str()) == 0 &&
           (fsync(folder) == 0 || errno == EINVAL);
}

/* Waits for the answer, like the daemon. Without on-screen controls, the bus refuses the call. */
void tell_controls(const std::vector<int> &numbers)
{
    json_t *values = json_array();
    for (const int number : numbers) {
        json_t *record = read_record(number);
        json_array_append_new(values, json_pack("{s:O, s:i}", "niceName",
                                                json_object_get(record, "name"), "value", number));
        json_decref(record);
    }
    char *text = json_dumps(values, JSON_COMPACT);
    sd_bus_error error = {};
    sd_bus_call_method(floor_get_bus(), "com.vesk.Onscreencontrols1", "/com/vesk/Onscreencontrols1",
                       "com.vesk.Onscreencontrols1", "AddFeatures", &error, nullptr, "sssa{sv}",
                       "en-us", "English", text, 0);
    sd_bus_error_free(&error);
    free(text);
    json_decref(values);
}

int add_clip(sd_bus_message *message, void *, sd_bus_error *)
{
    const char *location = nullptr;
    const char *name = nullptr;
    const char *type = nullptr;
    const int r = sd_bus_message_read(message, "sss", &location, &name, &type);
    if (r < 0) {
        return r;
    }
    const int folder = open(FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    std::vector<int> numbers = list_numbers(folder);
    const int number = find_free(numbers);
    json_t *record = json_pack("{s:s, s:s, s:s, s:{}}", "location", location, "name", name, "type",
                               type, "metadata");
    const bool written = write_synced(folder, make_name(number), record);
    json_decref(record);
    close(folder);
    if (!written) {
        return -EIO;
    }
    numbers.push_back(number);
    tell_controls(numbers);
    return sd_bus_reply_method_return(message, "i", number);
}

const sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AddClip", "sss", "i", add_clip, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetMetadata", "", "s", get_metadata, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

int main(int argc, char **argv)
{
    return floor_serve(argc, argv, table);
}
