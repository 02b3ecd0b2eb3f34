/* A control device with one integer mixer element (-1000...1000) for testing clock steering
 * without a sound card. Every value written is appended as a decimal line to the file named by
 * the environment variable DRIFT_CONTROL_RECORD when the device is opened.
 * Config: "element" renames the element (default "Drift compensator"); "fail" true makes opening
 * fail with -ENODEV. */
#include <alsa/asoundlib.h>
#include <alsa/control_external.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef struct
{
    snd_ctl_ext_t ext;
    char element[44];
    long value;
    FILE* record;
} DriftControl;

static void driftClose(snd_ctl_ext_t* ext)
{
    DriftControl* control = ext->private_data;
    if (control->record)
        fclose(control->record);
    free(control);
}

static int driftElemCount(snd_ctl_ext_t* ext)
{
    (void)ext;
    return 1;
}

static int driftElemList(snd_ctl_ext_t* ext, unsigned int offset, snd_ctl_elem_id_t* id)
{
    DriftControl* control = ext->private_data;
    (void)offset;
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, control->element);
    return 0;
}

static snd_ctl_ext_key_t driftFindElem(snd_ctl_ext_t* ext, const snd_ctl_elem_id_t* id)
{
    DriftControl* control = ext->private_data;
    if (snd_ctl_elem_id_get_numid(id) == 1)
        return 0;
    if (snd_ctl_elem_id_get_interface(id) == SND_CTL_ELEM_IFACE_MIXER &&
        strcmp(snd_ctl_elem_id_get_name(id), control->element) == 0)
        return 0;
    return SND_CTL_EXT_KEY_NOT_FOUND;
}

static int driftGetAttribute(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, int* type, unsigned int* access,
                             unsigned int* count)
{
    (void)ext;
    (void)key;
    *type = SND_CTL_ELEM_TYPE_INTEGER;
    *access = SND_CTL_EXT_ACCESS_READWRITE;
    *count = 1;
    return 0;
}

static int driftGetIntegerInfo(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* min, long* max, long* step)
{
    (void)ext;
    (void)key;
    *min = -1000;
    *max = 1000;
    *step = 1;
    return 0;
}

static int driftReadInteger(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* value)
{
    DriftControl* control = ext->private_data;
    (void)key;
    *value = control->value;
    return 0;
}

static int driftWriteInteger(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* value)
{
    DriftControl* control = ext->private_data;
    (void)key;
    int const changed = control->value != *value;
    control->value = *value;
    if (control->record) {
        fprintf(control->record, "%ld\n", *value);
        fflush(control->record);
    }
    return changed;
}

static int driftReadEvent(snd_ctl_ext_t* ext, snd_ctl_elem_id_t* id, unsigned int* eventMask)
{
    (void)ext;
    (void)id;
    (void)eventMask;
    return -EAGAIN;
}

static const snd_ctl_ext_callback_t c_callbacks = {
    .close = driftClose,
    .elem_count = driftElemCount,
    .elem_list = driftElemList,
    .find_elem = driftFindElem,
    .get_attribute = driftGetAttribute,
    .get_integer_info = driftGetIntegerInfo,
    .read_integer = driftReadInteger,
    .write_integer = driftWriteInteger,
    .read_event = driftReadEvent,
};

SND_CTL_PLUGIN_DEFINE_FUNC(drifttest)
{
    snd_config_iterator_t i, next;
    const char* element = "Drift compensator";
    int fail = 0;
    (void)root;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t* entry = snd_config_iterator_entry(i);
        const char* key;
        if (snd_config_get_id(entry, &key) < 0)
            continue;
        if (strcmp(key, "comment") == 0 || strcmp(key, "type") == 0 || strcmp(key, "hint") == 0)
            continue;
        if (strcmp(key, "element") == 0 && snd_config_get_string(entry, &element) == 0)
            continue;
        if (strcmp(key, "fail") == 0 && (fail = snd_config_get_bool(entry)) >= 0)
            continue;
        SNDERR("Unknown field %s", key);
        return -EINVAL;
    }
    if (fail)
        return -ENODEV;

    DriftControl* control = calloc(1, sizeof *control);
    if (!control)
        return -ENOMEM;
    snprintf(control->element, sizeof control->element, "%s", element);
    const char* recordPath = getenv("DRIFT_CONTROL_RECORD");
    if (recordPath)
        control->record = fopen(recordPath, "a");
    control->ext.version = SND_CTL_EXT_VERSION;
    control->ext.card_idx = 0;
    strcpy(control->ext.id, "DriftTest");
    strcpy(control->ext.driver, "drifttest");
    strcpy(control->ext.name, "Drift test control");
    strcpy(control->ext.longname, "Drift compensator test control");
    strcpy(control->ext.mixername, "Drift test");
    control->ext.poll_fd = -1;
    control->ext.callback = &c_callbacks;
    control->ext.private_data = control;
    int const result = snd_ctl_ext_create(&control->ext, name, mode);
    if (result < 0) {
        driftClose(&control->ext);
        return result;
    }
    *handlep = control->ext.handle;
    return 0;
}

SND_CTL_PLUGIN_SYMBOL(drifttest)
