/* A C99 application of the installed library: only the public header and the
 * exported functions. Exits non-zero, naming the check, on the first surprise. */
#include <stdio.h>
#include <string.h>

#include <halyx.h>

static int failures = 0;

#define CHECK(condition)                                                                                               \
  do {                                                                                                                 \
    if (!(condition)) {                                                                                                \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);                                    \
      ++failures;                                                                                                      \
    }                                                                                                                  \
  } while (0)

static unsigned log_lines = 0;

static void on_log(uint32_t level, const char* message, void* user_data)
{
    (void)level;
    (void)message;
    CHECK(user_data == &log_lines);
    ++log_lines;
}

static void on_names(void* user_data, const char* json)
{
    CHECK(json != NULL && json[0] == '[');
    *(int*)user_data = 1;
}

static void last_error(halyx_context* context, uint32_t* code, char* text, size_t size)
{
    CHECK(halyx_get_last_error(context, code, text, size) == HALYX_SUCCESS);
}

int main(void)
{
    halyx_context* context = NULL;
    halyx_timeout_configuration_t timeouts;
    uint32_t code = 0;
    char message[512];
    bool exists = true;
    int called = 0;
    halyx_version_list_t* versions = NULL;
    char* document = NULL;
    halyx_firmware* firmware = NULL;
    const uint8_t bytes[4] = {1, 2, 3, 4};
    halyx_device_list_t* list = NULL;
    const char* filter[1] = {"jlink"};

    CHECK(halyx_create_context(&context) == HALYX_SUCCESS);
    CHECK(halyx_get_current_timeout_configuration(context, &timeouts) == HALYX_SUCCESS);
    CHECK(timeouts.enumerate_ms == 60000 && timeouts.settle_ms == 60);
    CHECK(timeouts.response_ms == 30000 && timeouts.reappear_ms == 30000);

    CHECK(halyx_register_log_event(context, on_log, &log_lines) == HALYX_SUCCESS);
    CHECK(halyx_register_log_event(context, on_log, &log_lines) == HALYX_ERR_LOGGER);
    CHECK(halyx_set_log_level(context, HALYX_LOG_LEVEL_ERROR) == HALYX_SUCCESS);

    CHECK(halyx_set_configuration(context, "[]") == HALYX_ERR_INVALID_ARGUMENT);
    last_error(context, &code, message, sizeof message);
    CHECK(code == 50 && strcmp(message, "Configuration must be a JSON object") == 0);

    CHECK(halyx_cancel_async_task(context, 42) == HALYX_ERR_NOT_FOUND);
    last_error(context, &code, message, sizeof message);
    CHECK(code == 10 && strcmp(message, "cancel_async_task: async task not found for id: 42") == 0);
    CHECK(halyx_async_task_exists(context, 42, &exists) == HALYX_SUCCESS && !exists);
    CHECK(halyx_wait_timed_async_task_complete(context, 42, 0) == HALYX_ERR_NOT_FOUND);

    CHECK(halyx_available_plugins(context, on_names, &called) == HALYX_SUCCESS && called);
    CHECK(halyx_get_version_list(context, &versions) == HALYX_SUCCESS);
    CHECK(versions != NULL && versions->count >= 1 && strcmp(versions->modules[0].module_name, "halyx") == 0);
    CHECK(halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_JSON, versions, &document) == HALYX_SUCCESS);
    CHECK(document != NULL && strstr(document, "\"moduleName\":\"halyx\"") != NULL);
    CHECK(halyx_free_document(context, document) == HALYX_SUCCESS);
    CHECK(halyx_free_version_list(context, versions) == HALYX_SUCCESS);
    CHECK(halyx_get_version_list_as_document() == HALYX_ERR_NOT_SUPPORTED);

    CHECK(halyx_fw_create_handle(&firmware, bytes, sizeof bytes, HALYX_FW_SOURCE_FILE, HALYX_FW_FORMAT_BINARY) ==
          HALYX_ERR_INVALID_ARGUMENT);
    CHECK(halyx_fw_create_handle(&firmware, bytes, sizeof bytes, HALYX_FW_SOURCE_BUFFER, HALYX_FW_FORMAT_BINARY) ==
          HALYX_SUCCESS);
    CHECK(halyx_fw_release_handle(firmware) == HALYX_SUCCESS);

    /* Whatever is attached to this machine, a filtered list comes and goes. */
    CHECK(halyx_set_filter(context, filter, 1) == HALYX_SUCCESS);
    code = halyx_enumerate(context, &list);
    CHECK(code == HALYX_SUCCESS);
    if (code == HALYX_SUCCESS) {
        CHECK(halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_CSV_WO_HEADER, list, &document) ==
              HALYX_SUCCESS);
        CHECK(strncmp(document, "serialnumber;serialports\n", 25) == 0);
        CHECK(halyx_free_document(context, document) == HALYX_SUCCESS);
        CHECK(halyx_free_device_list(context, list) == HALYX_SUCCESS);
    }
    CHECK(halyx_free_device_list(context, list) == HALYX_ERR_UNKNOWN_HANDLE);

    CHECK(halyx_unregister_log_event(context) == HALYX_SUCCESS);
    CHECK(halyx_release_context(context) == HALYX_SUCCESS);
    if (failures == 0) {
        printf("c99 client: all checks passed (%u log lines)\n", log_lines);
    }
    return failures == 0 ? 0 : 1;
}
