/*
 * halyx: find, identify and program microcontroller development kits.
 *
 * Plain C interface. Every function returns a halyx_errorcode_t (0 is
 * success) and never lets an exception or a crash-worthy condition escape.
 * After a failure, halyx_get_last_error() tells the code and a message.
 *
 * Threads: any thread may call any function. Progress, data, result and
 * completion callbacks of an operation run on that operation's worker
 * thread; the log callback runs on the context's log dispatcher thread;
 * device events run on the device lister's notification thread. A callback
 * may call any function except halyx_release_context() on its own context.
 *
 * Ownership: the context owns everything it creates. Device lists, devices,
 * documents and version lists handed to the caller are copies the caller
 * frees with the matching halyx_free_* function. Firmware handles live
 * independently of any context until halyx_fw_release_handle().
 */
#ifndef HALYX_H
#define HALYX_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  if defined(HALYX_BUILDING_LIBRARY)
#    define HALYX_API __declspec(dllexport)
#  else
#    define HALYX_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define HALYX_API __attribute__((visibility("default")))
#else
#  define HALYX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Error codes                                                               */
/* ------------------------------------------------------------------------ */

typedef enum halyx_errorcode_e {
    HALYX_SUCCESS = 0,
    HALYX_ERR_GENERAL = 1,
    HALYX_ERR_CONTROL_BLOCK_NOT_FOUND = 3,
    HALYX_ERR_UNKNOWN_HANDLE = 4,
    HALYX_ERR_JLINK = 9, /* a probe-library call failed; message: the result's name */
    HALYX_ERR_NOT_FOUND = 10,
    HALYX_ERR_DFU_11 = 11,
    HALYX_ERR_TIMEOUT = 12,
    HALYX_ERR_PROTOCOL = 14,
    HALYX_ERR_PROBE_LIBRARY = 15,
    HALYX_ERR_MANIFEST = 16,
    HALYX_ERR_OPEN_FAILED = 17,
    HALYX_ERR_ARCHIVE = 18,
    HALYX_ERR_NOT_SUPPORTED = 19,
    HALYX_ERR_LOGGER = 22,
    HALYX_ERR_INVALID_ARGUMENT = 50,
    HALYX_ERR_ALREADY_STARTED = 100,
    HALYX_ERR_INVALID_STATE = 102,
    HALYX_ERR_NO_MATCHING_TRAIT = 200,
    HALYX_ERR_INVALID_RESPONSE = 500,
    HALYX_ERR_DFU_519 = 519,
    HALYX_ERR_DFU_520 = 520
} halyx_errorcode_t;

/* ------------------------------------------------------------------------ */
/* Handles                                                                   */
/* ------------------------------------------------------------------------ */

/** Opaque library context; create with halyx_create_context(). */
typedef struct halyx_context halyx_context;

/** Opaque firmware handle; create with halyx_fw_create_handle(). */
typedef struct halyx_firmware halyx_firmware;

/* ------------------------------------------------------------------------ */
/* Logging                                                                   */
/* ------------------------------------------------------------------------ */

typedef enum halyx_log_level_e {
    HALYX_LOG_LEVEL_TRACE = 0,
    HALYX_LOG_LEVEL_DEBUG = 1,
    HALYX_LOG_LEVEL_INFO = 2,
    HALYX_LOG_LEVEL_WARNING = 3,
    HALYX_LOG_LEVEL_ERROR = 4,
    HALYX_LOG_LEVEL_CRITICAL = 5,
    HALYX_LOG_LEVEL_OFF = 6
} halyx_log_level_t;

/** Log callback: level (halyx_log_level_t), the formatted line (valid only during the call). */
typedef void (*halyx_log_callback_t)(uint32_t level, const char* message, void* user_data);

/* ------------------------------------------------------------------------ */
/* Configuration                                                             */
/* ------------------------------------------------------------------------ */

/** Time limits in milliseconds. Defaults: 60000, 60, 30000, 30000. */
typedef struct halyx_timeout_configuration_s {
    uint32_t enumerate_ms; /* how long halyx_enumerate() waits for the enumeration */
    uint32_t settle_ms;    /* how long a hot-plug arrival waits for the device's serial ports */
    uint32_t response_ms;  /* longest wait for one response of a serial bootloader */
    uint32_t reappear_ms;  /* how long an operation waits for a device to come back after a reset */
} halyx_timeout_configuration_t;

typedef void (*halyx_shutdown_callback_t)(halyx_context* context);

/** Receives a JSON text, valid only during the call. */
typedef void (*halyx_json_callback_t)(void* user_data, const char* json);

/* ------------------------------------------------------------------------ */
/* Devices                                                                   */
/* ------------------------------------------------------------------------ */

typedef struct halyx_trait_s {
    const char* name;
    bool value;
} halyx_trait_t;

/** One serial port of a device. Absent strings are NULL. */
typedef struct halyx_serial_port_s {
    const char* com_name;
    const char* path;
    const char* manufacturer;
    const char* serial_number;
    const char* vendor_id;
    const char* product_id;
    const char* usb_identifier;
    uint32_t vcom;
} halyx_serial_port_t;

/** A copy of one device record. Absent strings are NULL; json is the whole record, compact. */
typedef struct halyx_device_s {
    uint64_t id;
    const char* serial_number;
    const char* usb_identifier;
    const halyx_trait_t* traits;
    size_t trait_count;
    const halyx_serial_port_t* serial_ports;
    size_t serial_port_count;
    const char* json;
} halyx_device_t;

typedef struct halyx_device_list_s {
    const halyx_device_t* devices;
    size_t count;
} halyx_device_list_t;

typedef enum halyx_device_event_type_e {
    HALYX_DEVICE_EVENT_ARRIVED = 0,
    HALYX_DEVICE_EVENT_LEFT = 1, /* device is NULL */
    HALYX_DEVICE_EVENT_UPDATED = 2
} halyx_device_event_type_t;

/** A device event; device (when not NULL) is valid only during the callback. */
typedef struct halyx_device_event_s {
    halyx_device_event_type_t type;
    uint64_t device_id;
    const halyx_device_t* device;
} halyx_device_event_t;

typedef void (*halyx_device_event_callback_t)(halyx_context* context, const halyx_device_event_t* event,
                                              void* user_data);

/* ------------------------------------------------------------------------ */
/* Operations                                                                */
/* ------------------------------------------------------------------------ */

/** Outcome of one operation, passed by value to its completion callback. */
typedef struct halyx_complete_s {
    uint64_t task_id;
    halyx_errorcode_t error_code;
    const char* message; /* valid only during the callback; empty on success */
    void* user_data;
} halyx_complete_t;

typedef void (*halyx_complete_callback_t)(halyx_context* context, halyx_complete_t complete);
/** Progress as a JSON text, valid only during the call. */
typedef void (*halyx_progress_callback_t)(halyx_context* context, uint64_t task_id, const char* progress_json,
                                          void* user_data);
/** A block of data read from a device, valid only during the call. */
typedef void (*halyx_data_callback_t)(halyx_context* context, const char* data, uint64_t size, void* user_data);

typedef enum halyx_fw_source_kind_e {
    HALYX_FW_SOURCE_FILE = 0,  /* data is a zero-terminated path, size must be 0 */
    HALYX_FW_SOURCE_BUFFER = 1 /* data holds size bytes of image */
} halyx_fw_source_kind_t;

typedef enum halyx_fw_format_e {
    HALYX_FW_FORMAT_INTEL_HEX = 0,
    HALYX_FW_FORMAT_ELF = 1,
    HALYX_FW_FORMAT_BINARY = 2,
    HALYX_FW_FORMAT_ZIP = 3,
    HALYX_FW_FORMAT_MODEM_PACKAGE = 4
} halyx_fw_format_t;

typedef enum halyx_device_core_e {
    HALYX_DEVICE_CORE_APPLICATION = 0,
    HALYX_DEVICE_CORE_NETWORK = 1,
    HALYX_DEVICE_CORE_MODEM = 2
} halyx_device_core_t;

typedef enum halyx_mcu_state_e {
    HALYX_MCU_STATE_APPLICATION = 0,
    HALYX_MCU_STATE_PROGRAMMING = 1
} halyx_mcu_state_t;

/** Read-back protection, from none (0) to the highest level (4). */
typedef enum halyx_protection_status_e {
    HALYX_PROTECTION_NONE = 0,
    HALYX_PROTECTION_REGION0 = 1,
    HALYX_PROTECTION_SECURE = 2,
    HALYX_PROTECTION_ALL = 3,
    HALYX_PROTECTION_BOTH = 4
} halyx_protection_status_t;

typedef struct halyx_program_fw_optionals_s {
    bool verify;
    bool recover_before_program;
    const halyx_mcu_state_t* mcu_end_state; /* NULL: leave the MCU as the plugin does by default */
} halyx_program_fw_optionals_t;

typedef struct halyx_device_core_info_s {
    uint32_t codeAddress;
    uint32_t codePageSize;
    uint32_t codeSize;
    uint32_t uicrAddress;
    uint32_t infoPageSize;
    bool codeRamPresent;
    uint32_t codeRamAddress;
    uint32_t dataRamAddress;
    uint32_t ramSize;
    bool qspiPresent;
    uint32_t xipAddress;
    uint32_t xipSize;
    uint32_t pinResetPin;
} halyx_device_core_info_t;

typedef enum halyx_image_type_e {
    HALYX_IMAGE_TYPE_APPLICATION = 0,
    HALYX_IMAGE_TYPE_BOOTLOADER = 1,
    HALYX_IMAGE_TYPE_RADIOSTACK = 2,
    HALYX_IMAGE_TYPE_OPERATIVE_SYSTEM = 3,
    HALYX_IMAGE_TYPE_GENERIC = 4,
    HALYX_IMAGE_TYPE_UNKNOWN = 5
} halyx_image_type_t;

typedef enum halyx_image_location_e {
    HALYX_IMAGE_LOCATION_INTERNAL_FLASH = 0,
    HALYX_IMAGE_LOCATION_EXTERNAL_FLASH = 1,
    HALYX_IMAGE_LOCATION_UNKNOWN = 2
} halyx_image_location_t;

typedef enum halyx_bootloader_type_e {
    HALYX_BOOTLOADER_TYPE_NONE = 0,
    HALYX_BOOTLOADER_TYPE_MCUBOOT = 1,
    HALYX_BOOTLOADER_TYPE_SDFU = 2,
    HALYX_BOOTLOADER_TYPE_B0 = 3,
    HALYX_BOOTLOADER_TYPE_UNKNOWN = 4
} halyx_bootloader_type_t;

typedef struct halyx_image_info_s {
    uint32_t image_type;     /* halyx_image_type_t */
    uint32_t image_location; /* halyx_image_location_t */
    uint32_t address;
    uint32_t size;
    uint32_t bootloader_type; /* halyx_bootloader_type_t */
    const char* version;      /* NULL when unknown */
} halyx_image_info_t;

typedef struct halyx_firmware_device_firmware_images_s {
    const halyx_image_info_t* images;
    size_t count;
} halyx_firmware_device_firmware_images_t;

typedef void (*halyx_fw_read_info_callback_t)(halyx_context* context, halyx_firmware_device_firmware_images_t images,
                                              void* user_data);
typedef void (*halyx_protection_status_callback_t)(halyx_context* context, uint64_t task_id,
                                                   halyx_protection_status_t status, void* user_data);
typedef void (*halyx_core_info_callback_t)(halyx_context* context, uint64_t task_id,
                                           const halyx_device_core_info_t* info, void* user_data);
typedef void (*halyx_register_callback_t)(halyx_context* context, uint64_t task_id, const char* value_json,
                                          void* user_data);

/* ------------------------------------------------------------------------ */
/* Documents and versions                                                    */
/* ------------------------------------------------------------------------ */

typedef enum halyx_doc_format_e {
    HALYX_DOC_FORMAT_TEXT = 0,
    HALYX_DOC_FORMAT_JSON = 1,
    HALYX_DOC_FORMAT_JSON_PRETTY = 2,
    HALYX_DOC_FORMAT_CSV = 3,
    HALYX_DOC_FORMAT_CSV_WO_HEADER = 4
} halyx_doc_format_t;

typedef enum halyx_version_format_e {
    HALYX_VERSION_FORMAT_STRING = 0,
    HALYX_VERSION_FORMAT_INCREMENTAL = 1,
    HALYX_VERSION_FORMAT_SEMANTIC = 2
} halyx_version_format_t;

typedef enum halyx_version_identifier_type_e {
    HALYX_VERSION_IDENTIFIER_STRING = 0,
    HALYX_VERSION_IDENTIFIER_NUMERIC = 1
} halyx_version_identifier_type_t;

/** One dot-separated identifier of a semantic version's pre-release or metadata part. */
typedef struct halyx_version_identifier_s {
    uint32_t type; /* halyx_version_identifier_type_t */
    const char* text;
    uint64_t number;
} halyx_version_identifier_t;

typedef struct halyx_semantic_version_s {
    uint32_t major;
    uint32_t minor;
    uint32_t patch;
    const halyx_version_identifier_t* pre;
    size_t pre_count;
    const halyx_version_identifier_t* metadata;
    size_t metadata_count;
} halyx_semantic_version_t;

typedef struct halyx_version_s {
    uint32_t format;                   /* halyx_version_format_t: which of the next three is meaningful */
    const char* string;                /* HALYX_VERSION_FORMAT_STRING */
    uint64_t incremental;              /* HALYX_VERSION_FORMAT_INCREMENTAL */
    halyx_semantic_version_t semantic; /* HALYX_VERSION_FORMAT_SEMANTIC */
} halyx_version_t;

typedef struct halyx_module_version_s {
    const char* module_name;
    const char* description;
    halyx_version_t version;
    const halyx_version_t* expected_version; /* NULL when the module states none */
    const struct halyx_module_version_s* dependencies;
    size_t dependency_count;
} halyx_module_version_t;

typedef struct halyx_version_list_s {
    const halyx_module_version_t* modules;
    size_t count;
} halyx_version_list_t;

/* ======================================================================== */
/* Context and configuration                                                */
/* ======================================================================== */

/**
 * Creates a context and writes it to *context. The caller owns it and ends it
 * with halyx_release_context(). Failures are logged, not stored (there is no
 * context yet). Returns 0, 50 (context is NULL) or the failure's code.
 */
HALYX_API halyx_errorcode_t halyx_create_context(halyx_context** context);

/**
 * Cancels every task of the context and waits for each to end, shuts the
 * device lister down, stops log delivery and destroys the context. Blocks
 * until running operations have reacted to cancellation. Must not be called
 * from a callback of the same context. Returns 0, or 12 while an
 * enumeration is still running (the context then stays valid).
 */
HALYX_API halyx_errorcode_t halyx_release_context(halyx_context* context);

/**
 * Replaces the context's configuration with a JSON object (keys such as
 * "device_lister" with "name" and "init_parameters") and hands it to the
 * device lister. Returns 0 or 50 ("Configuration must be a JSON object",
 * "Unable to deserialize configuration", "Empty json string key is not supported").
 */
HALYX_API halyx_errorcode_t halyx_set_configuration(halyx_context* context, const char* json);

/** Copies *timeouts into the context and its device lister. Returns 0 or 50 (NULL argument). */
HALYX_API halyx_errorcode_t halyx_set_timeout(halyx_context* context, const halyx_timeout_configuration_t* timeouts);

/** Writes the context's time limits to *timeouts. Returns 0 or 50 (NULL argument). */
HALYX_API halyx_errorcode_t halyx_get_current_timeout_configuration(halyx_context* context,
                                                                    halyx_timeout_configuration_t* timeouts);

/**
 * Stores the callback called when the context's device lister shuts down
 * (during halyx_release_context, on the releasing thread); replaces any
 * earlier one; NULL clears it. Returns 0.
 */
HALYX_API halyx_errorcode_t halyx_register_shutdown_event(halyx_context* context, halyx_shutdown_callback_t callback);

/**
 * Starts delivering hot-plug notices to the device lister. Returns 0 (also
 * when they run already) or the platform's failure. From a device event
 * callback after the notices were stopped it returns 102: start them again
 * from another thread.
 */
HALYX_API halyx_errorcode_t halyx_start_eventhandler(halyx_context* context);

/**
 * Stops delivering hot-plug notices and returns 0 once no device event
 * callback runs any more. Called from a device event callback it returns 0
 * at once and the notices stop when that callback returns.
 */
HALYX_API halyx_errorcode_t halyx_stop_eventhandler(halyx_context* context);

/**
 * Calls callback once, synchronously on the calling thread, with a compact
 * JSON array of the registered plugins' names. Returns 0 or 50 (NULL callback).
 */
HALYX_API halyx_errorcode_t halyx_available_plugins(halyx_context* context, halyx_json_callback_t callback,
                                                    void* user_data);

/**
 * Calls callback once, synchronously, with a compact JSON array of the
 * trait names the registered plugins serve. Returns 0 or 50 (NULL callback).
 */
HALYX_API halyx_errorcode_t halyx_available_traits(halyx_context* context, halyx_json_callback_t callback,
                                                   void* user_data);

/* ======================================================================== */
/* Errors                                                                   */
/* ======================================================================== */

/**
 * Reads the context's last failure: its code through *code and its message
 * into buffer (buffer_size bytes, terminator included). A message that does
 * not fit leaves buffer holding an empty text. A success never clears the
 * record. Returns 0; 1 if the record could not be read; 50 if context is NULL.
 */
HALYX_API halyx_errorcode_t halyx_get_last_error(halyx_context* context, uint32_t* code, char* buffer,
                                                 size_t buffer_size);

/* ======================================================================== */
/* Asynchronous tasks                                                       */
/* ======================================================================== */

/**
 * Waits until the task ends and returns its outcome code; the first wait that
 * sees a task finished removes it, so a second wait returns 10. A failure
 * code (other than 12) is stored as the last error with
 * "async task failure for id: {id} msg: {message}".
 */
HALYX_API halyx_errorcode_t halyx_wait_async_task_complete(halyx_context* context, uint64_t task_id);

/**
 * Like halyx_wait_async_task_complete() but waits at most timeout_ms
 * milliseconds (0 or less: looks once). On time-out returns 12, leaves the
 * task waitable and the last error untouched.
 */
HALYX_API halyx_errorcode_t halyx_wait_timed_async_task_complete(halyx_context* context, uint64_t task_id,
                                                                 int32_t timeout_ms);

/**
 * Asks a task to stop; the operation checks the request between its steps.
 * The task stays waitable. Returns 0, or 10 when the id is unknown.
 */
HALYX_API halyx_errorcode_t halyx_cancel_async_task(halyx_context* context, uint64_t task_id);

/** Writes whether the task id is in the context's task table. Returns 0, or 50 (NULL task_exists). */
HALYX_API halyx_errorcode_t halyx_async_task_exists(halyx_context* context, uint64_t task_id, bool* task_exists);

/* ======================================================================== */
/* Logging                                                                  */
/* ======================================================================== */

/**
 * Registers the context's log callback; it runs on the context's log
 * dispatcher thread, never on the logging thread and never twice at once.
 * Nothing is logged until halyx_set_log_level() lowers the level from off.
 * Returns 0, 50 (NULL callback) or 22 when a callback is already registered.
 */
HALYX_API halyx_errorcode_t halyx_register_log_event(halyx_context* context, halyx_log_callback_t callback,
                                                     void* user_data);

/**
 * Removes the context's log callback and drops lines not yet delivered.
 * When it returns the callback is not running and will not be called again.
 * Returns 0.
 */
HALYX_API halyx_errorcode_t halyx_unregister_log_event(halyx_context* context);

/** Sets the process-wide log level (halyx_log_level_t, affects every context); other values are ignored. Returns 0. */
HALYX_API halyx_errorcode_t halyx_set_log_level(halyx_context* context, uint32_t level);

/** Sets the process-wide log line pattern (spdlog pattern syntax, local time). Returns 0 or 50 (NULL pattern). */
HALYX_API halyx_errorcode_t halyx_set_log_pattern(halyx_context* context, const char* pattern);

/* ======================================================================== */
/* Enumeration, devices and events                                          */
/* ======================================================================== */

/**
 * Enumerates the attached devices (bounded by the context's enumerate_ms)
 * and writes a new list of copies to *list, filtered by halyx_set_filter().
 * Free it with halyx_free_device_list() before the next enumeration.
 * Returns 0, 22 (previous list not freed), 12 (time-out, or the previous
 * enumeration still running), 102, or a lister's failure.
 */
HALYX_API halyx_errorcode_t halyx_enumerate(halyx_context* context, halyx_device_list_t** list);

/** Writes a copy of the device with that id to *device; free it with halyx_free_device(). Returns 0, 10 or 4. */
HALYX_API halyx_errorcode_t halyx_get_device(halyx_context* context, uint32_t device_id, halyx_device_t** device);

/** Frees a device from halyx_get_device(). Returns 0 or 10 ("Unable to free device."). */
HALYX_API halyx_errorcode_t halyx_free_device(halyx_context* context, halyx_device_t* device);

/** Frees the list from halyx_enumerate(). Returns 0 or 4 ("Could not free non-existing device list."). */
HALYX_API halyx_errorcode_t halyx_free_device_list(halyx_context* context, halyx_device_list_t* list);

/**
 * Limits later enumerations to devices with at least one of these traits set
 * true (the names are copied). count 0 lists everything. Returns 0 or 50.
 */
HALYX_API halyx_errorcode_t halyx_set_filter(halyx_context* context, const char* const* traits, size_t count);

/** Removes the filter. Returns 0. */
HALYX_API halyx_errorcode_t halyx_reset_filter(halyx_context* context);

/**
 * Registers the device-event callback: arrivals, updates and removals, on
 * the lister's notification thread, in order, one at a time. Returns 0, 50
 * (NULL callback) or 22 when one is already registered.
 */
HALYX_API halyx_errorcode_t halyx_register_device_event(halyx_context* context, halyx_device_event_callback_t callback,
                                                        void* user_data);

/** Removes the device-event callback; when it returns the callback will not be called again. Returns 0. */
HALYX_API halyx_errorcode_t halyx_unregister_device_event(halyx_context* context);

/* ======================================================================== */
/* Device operations                                                        */
/*                                                                          */
/* Each finds the device by id, chooses the plugin that serves one of its   */
/* traits and the operation, starts a task, writes its id to *task_id and   */
/* returns 0 at once. Callbacks run on the task's worker; complete is       */
/* called last. Before a task exists they return 10 (unknown device), 200   */
/* ("no matching trait found") or 50 (bad argument) and call nothing.       */
/* core: NULL lets the plugin choose.                                       */
/* ======================================================================== */

HALYX_API halyx_errorcode_t halyx_fw_program(halyx_context* context, uint32_t device_id, halyx_firmware* firmware,
                                             uint64_t* task_id, const halyx_program_fw_optionals_t* optionals,
                                             const halyx_device_core_t* core, halyx_progress_callback_t progress,
                                             halyx_complete_callback_t complete, void* user_data);

/** Reads the device's firmware into the file of firmware (file handles) or through data (buffer handles). */
HALYX_API halyx_errorcode_t halyx_fw_read(halyx_context* context, uint32_t device_id, halyx_firmware* firmware,
                                          uint64_t* task_id, const halyx_mcu_state_t* mcu_end_state,
                                          const halyx_device_core_t* core, halyx_data_callback_t data,
                                          halyx_progress_callback_t progress, halyx_complete_callback_t complete,
                                          void* user_data);

/** Finds the firmware images on the device; result receives them (valid only during the call). */
HALYX_API halyx_errorcode_t halyx_fw_read_info(halyx_context* context, uint64_t* task_id, uint32_t device_id,
                                               const halyx_mcu_state_t* mcu_end_state,
                                               halyx_fw_read_info_callback_t result, halyx_complete_callback_t complete,
                                               void* user_data);

HALYX_API halyx_errorcode_t halyx_fw_verify(halyx_context* context, uint32_t device_id, halyx_firmware* firmware,
                                            const halyx_device_core_t* core, uint64_t* task_id,
                                            halyx_complete_callback_t complete, void* user_data);

HALYX_API halyx_errorcode_t halyx_fw_erase(halyx_context* context, uint32_t device_id, const halyx_device_core_t* core,
                                           uint64_t* task_id, halyx_complete_callback_t complete, void* user_data);

HALYX_API halyx_errorcode_t halyx_device_control_reset(halyx_context* context, uint32_t device_id,
                                                       const halyx_device_core_t* core, uint64_t* task_id,
                                                       halyx_complete_callback_t complete, void* user_data);

HALYX_API halyx_errorcode_t halyx_device_control_recover(halyx_context* context, uint64_t* task_id, uint32_t device_id,
                                                         const halyx_device_core_t* core,
                                                         halyx_complete_callback_t complete, void* user_data);

HALYX_API halyx_errorcode_t halyx_device_control_set_mcu_state(halyx_context* context, uint32_t device_id,
                                                               uint64_t* task_id, halyx_mcu_state_t state,
                                                               halyx_complete_callback_t complete, void* user_data);

HALYX_API halyx_errorcode_t halyx_device_control_set_protection(halyx_context* context, uint32_t device_id,
                                                                const halyx_device_core_t* core, uint64_t* task_id,
                                                                halyx_protection_status_t status,
                                                                halyx_complete_callback_t complete, void* user_data);

HALYX_API halyx_errorcode_t halyx_device_control_get_protection_status(
    halyx_context* context, uint32_t device_id, const halyx_device_core_t* core, uint64_t* task_id,
    halyx_protection_status_callback_t result, halyx_complete_callback_t complete, void* user_data);

/** result receives the core's memory layout (valid only during the call). */
HALYX_API halyx_errorcode_t halyx_get_device_core_info(halyx_context* context, uint32_t device_id,
                                                       const halyx_device_core_t* core,
                                                       halyx_core_info_callback_t result, uint64_t* task_id,
                                                       halyx_complete_callback_t complete, void* user_data);

/** register_path: "CORE.PERIPHERAL.REGISTER", CORE one of APPLICATION, NETWORK, MODEM. */
HALYX_API halyx_errorcode_t halyx_read_register(halyx_context* context, uint32_t device_id, const char* register_path,
                                                halyx_register_callback_t result, uint64_t* task_id,
                                                halyx_complete_callback_t complete, void* user_data);

/* ======================================================================== */
/* RTT (synchronous, through the device's debug probe)                      */
/* ======================================================================== */

/**
 * Opens RTT on the device; control_block_address NULL searches for it.
 * Returns 0, 19 (no probe), 10, 100 (already open), 3 (control block not found).
 */
HALYX_API halyx_errorcode_t halyx_rtt_start(halyx_context* context, uint32_t device_id,
                                            const uint32_t* control_block_address, uint32_t timeout_ms);

/** Closes RTT on the device. Returns 0 or 102 ("rtt not started"). */
HALYX_API halyx_errorcode_t halyx_rtt_stop(halyx_context* context, uint32_t device_id);

/** Writes whether RTT is open on the device. Returns 0 or 50. */
HALYX_API halyx_errorcode_t halyx_rtt_is_started(halyx_context* context, uint32_t device_id, bool* started);

/** Reads up to length bytes from an up-channel; *bytes_read tells how many. Returns 0 or 102. */
HALYX_API halyx_errorcode_t halyx_rtt_read(halyx_context* context, uint32_t device_id, uint32_t channel, char* buffer,
                                           uint32_t length, uint32_t* bytes_read);

/** Writes up to length bytes to a down-channel; *bytes_written tells how many. Returns 0 or 102. */
HALYX_API halyx_errorcode_t halyx_rtt_write(halyx_context* context, uint32_t device_id, uint32_t channel,
                                            const char* data, uint32_t length, uint32_t* bytes_written);

/* ======================================================================== */
/* Firmware handles                                                         */
/* ======================================================================== */

/**
 * Creates a firmware handle. source_kind HALYX_FW_SOURCE_FILE: data is a
 * zero-terminated path to an existing file and size must be 0; otherwise
 * data holds size bytes (copied). format: halyx_fw_format_t. The caller owns
 * the handle. Returns 0 or 50 (bad argument, missing or unreadable file).
 */
HALYX_API halyx_errorcode_t halyx_fw_create_handle(halyx_firmware** firmware, const uint8_t* data, size_t size,
                                                   uint32_t source_kind, uint32_t format);

/** Frees a firmware handle; NULL is accepted. Returns 0. */
HALYX_API halyx_errorcode_t halyx_fw_release_handle(halyx_firmware* firmware);

/**
 * Reads a register's reset value from a firmware image by its register path
 * for a chip family and version; writes it as text into result.
 */
HALYX_API halyx_errorcode_t halyx_util_read_register_from_fw(halyx_firmware* firmware, const char* family,
                                                             const char* version, const char* path, char* result,
                                                             size_t result_size);

/* ======================================================================== */
/* Documents                                                                */
/*                                                                          */
/* Each renders its input as a new text written to *document; free it with */
/* halyx_free_document(). Unsupported formats return 19 ("{FORMAT} not      */
/* supported yet."), NULL inputs 50.                                        */
/* ======================================================================== */

/** Formats: JSON, JSON_PRETTY. */
HALYX_API halyx_errorcode_t halyx_util_device_as_document(halyx_context* context, uint32_t format,
                                                          const halyx_device_t* device, char** document);

/** Formats: JSON, JSON_PRETTY, CSV (no header line) and CSV_WO_HEADER (with the header line). */
HALYX_API halyx_errorcode_t halyx_util_device_list_as_document(halyx_context* context, uint32_t format,
                                                               const halyx_device_list_t* list, char** document);

/** Formats: JSON, JSON_PRETTY. */
HALYX_API halyx_errorcode_t halyx_util_device_core_info_as_document(halyx_context* context, uint32_t format,
                                                                    const halyx_device_core_info_t* info,
                                                                    char** document);

/** Formats: JSON, JSON_PRETTY. */
HALYX_API halyx_errorcode_t halyx_util_version_list_as_document(halyx_context* context, uint32_t format,
                                                                const halyx_version_list_t* list, char** document);

/** Formats: JSON, JSON_PRETTY. */
HALYX_API halyx_errorcode_t halyx_device_firmware_images_as_document(
    halyx_context* context, uint32_t format, const halyx_firmware_device_firmware_images_t* images, char** document);

/** Frees a document from one of the *_as_document functions; NULL is accepted. Returns 0. */
HALYX_API halyx_errorcode_t halyx_free_document(halyx_context* context, char* document);

/** Writes a new list of the library's modules and their versions; free it with halyx_free_version_list(). */
HALYX_API halyx_errorcode_t halyx_get_version_list(halyx_context* context, halyx_version_list_t** list);

/** Frees a list from halyx_get_version_list(); NULL is accepted. Returns 0. */
HALYX_API halyx_errorcode_t halyx_free_version_list(halyx_context* context, halyx_version_list_t* list);

/** Always returns 19; render halyx_get_version_list() with halyx_util_version_list_as_document(). */
HALYX_API halyx_errorcode_t halyx_get_version_list_as_document(void);

#ifdef __cplusplus
}
#endif

#endif /* HALYX_H */
