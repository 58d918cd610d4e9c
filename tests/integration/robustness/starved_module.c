/* Runs the module's handlers in a process whose memory fails where a test wants it.
 *
 *   starved_module MODULE rebuild|request|scalars|descriptors once|on FIRST STEP COLUMN SCALAR...
 *
 * COLUMN is the OID of a table's column, by which a rebuild is requested; SCALAR... are the OIDs of all
 * scalars. The module is loaded and everything is read once. Then, for n = FIRST, FIRST + STEP, ..., a child
 * process of its own makes the n-th allocation of the scenario fail ("once"), or that and all later ones
 * ("on"); it makes a connection of its own there. In the scenario "descriptors" a rebuild can open no more
 * than n. The child then checks, with memory again, what the scenario left behind: whatever value is missing
 * must have a line in the log, all values must be whole again soon, and as many descriptors must be open as
 * before. Prints one line per n that failed, and at the end "N allocations, M tried, K failed". */
#define _GNU_SOURCE
#include <net-snmp/net-snmp-config.h>
/* The configuration comes first. */
#include <net-snmp/net-snmp-includes.h>
/* The agent's headers lean on the library's. */
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

/* Memory and the clock of this process and everything that it loads. */

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

static int counting;
static long allocations;
static long failFrom = -1;
static int failOn;
static long clockShift;

static int Fails(void) {
    if (!counting) {
        return 0;
    }
    const long number = allocations++;
    if (number == failFrom || (failOn && failFrom >= 0 && number > failFrom)) {
        errno = ENOMEM;
        return 1;
    }
    return 0;
}

void* malloc(size_t size) {
    return Fails() ? NULL : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    return Fails() ? NULL : __libc_calloc(count, size);
}
void* realloc(void* old, size_t size) {
    return Fails() ? NULL : __libc_realloc(old, size);
}
void* memalign(size_t alignment, size_t size) {
    return Fails() ? NULL : __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
    void* const made = memalign(alignment, size);
    if (made != NULL) {
        *out = made;
    }
    return made != NULL ? 0 : ENOMEM;
}

time_t time(time_t* out) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != NULL) {
        *out = now.tv_sec + clockShift;
    }
    return now.tv_sec + clockShift;
}

/* The log: warnings are counted, and the last one is kept for the report. */

static int warnings;
static char lastWarning[200];

static int TakeLogLine(int major, int minor, void* message, void* argument) {
    (void)major;
    (void)minor;
    (void)argument;
    const struct snmp_log_message* const line = message;
    /* The only line about a connection that breaks while the VMs are listed. */
    if (line->priority <= LOG_WARNING || strstr(line->msg, "no VM found") != NULL) {
        ++warnings;
        snprintf(lastWarning, sizeof lastWarning, "%s", line->msg);
    }
    return 0;
}

/* Every instance that the module serves, as text. */

struct Dump {
    char text[65536];
    size_t length;
};

static void Add(struct Dump* dump, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    dump->length +=
        (size_t)vsnprintf(dump->text + dump->length, sizeof dump->text - dump->length, format, arguments);
    va_end(arguments);
    if (dump->length >= sizeof dump->text) {
        abort();
    }
}

static struct variable columns[200];
static int columnCount;

static void FindColumns(void) {
    const oid enterprise[] = {1, 3, 6, 1, 4, 1, 32473};
    netsnmp_subtree* at = netsnmp_subtree_find_first("");
    for (; at != NULL; at = at->next) {
        if (at->namelen < 7 || snmp_oid_compare(at->name_a, 7, enterprise, 7) != 0 || at->reginfo == NULL) {
            continue;
        }
        const struct variable* const entry = netsnmp_find_handler_data_by_name(at->reginfo, "old_api");
        if (entry != NULL && columnCount < 200) {
            struct variable* const column = &columns[columnCount++];
            column->magic = entry->magic;
            column->type = entry->type;
            column->acl = entry->acl;
            column->findVar = entry->findVar;
            column->namelen = (u_char)at->reginfo->rootoid_len;
            memcpy(column->name, at->reginfo->rootoid, at->reginfo->rootoid_len * sizeof(oid));
        }
    }
}

static u_char* Call(struct variable* column, oid* name, size_t* length, int exact, size_t* valueLength) {
    WriteMethod* write = NULL;
    *valueLength = 0;
    return column->findVar(column, name, length, exact, valueLength, &write);
}

static u_char* Next(struct variable* column, oid* name, size_t* length, size_t* valueLength) {
    return Call(column, name, length, 0, valueLength);
}

static void AddInstance(struct Dump* dump, const oid* name, size_t length, const u_char* value,
                        size_t valueLength) {
    for (size_t k = 7; k < length; ++k) {
        Add(dump, ".%lu", (unsigned long)name[k]);
    }
    Add(dump, value != NULL ? "=" : "!");
    for (size_t k = 0; value != NULL && k < valueLength; ++k) {
        Add(dump, "%02x", value[k]);
    }
    Add(dump, "\n");
}

static void Clear(struct Dump* dump) {
    dump->length = 0;
    dump->text[0] = '\0';
}

/* From the command line: a column of a table, then all scalars. */
static struct variable* tableColumn;
static struct variable* scalarColumns[100];
static int scalarCount;

static struct variable* FindColumn(const char* text) {
    oid name[MAX_OID_LEN];
    size_t length = MAX_OID_LEN;
    if (read_objid(text, name, &length)) {
        for (int i = 0; i < columnCount; ++i) {
            if (snmp_oid_compare(columns[i].name, columns[i].namelen, name, length) == 0) {
                return &columns[i];
            }
        }
    }
    fprintf(stderr, "%s is not registered\n", text);
    exit(2);
}

static int IsScalar(const struct variable* column) {
    for (int i = 0; i < scalarCount; ++i) {
        if (scalarColumns[i] == column) {
            return 1;
        }
    }
    return 0;
}

/* Tables only, or scalars only. */
static void DumpAll(struct Dump* dump, int scalars) {
    Clear(dump);
    for (int i = 0; i < columnCount; ++i) {
        if (IsScalar(&columns[i]) != scalars) {
            continue;
        }
        oid name[MAX_OID_LEN];
        size_t length = columns[i].namelen;
        memcpy(name, columns[i].name, length * sizeof(oid));
        size_t valueLength;
        for (u_char* value = Next(&columns[i], name, &length, &valueLength); value != NULL;
             value = Next(&columns[i], name, &length, &valueLength)) {
            AddInstance(dump, name, length, value, valueLength);
        }
    }
}

/* Scenarios. Each ends with what the module serves from then on, without another rebuild. */

/* What the scenario was served. */
static struct Dump given;

static void Request(struct variable* column) {
    oid name[MAX_OID_LEN];
    size_t length = column->namelen, valueLength;
    memcpy(name, column->name, length * sizeof(oid));
    counting = 1;
    const u_char* const value = Next(column, name, &length, &valueLength);
    counting = 0;
    AddInstance(&given, name, length, value, valueLength);
}

static void Age(void) {
    clockShift += 22;
}

static void Rebuild(void) {
    Age();
    Request(tableColumn);
}

/* A rebuild with no more descriptors than `failFrom`; fewer than two never suffice. */
static void RebuildWithoutDescriptors(void) {
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    struct rlimit whole;
    getrlimit(RLIMIT_NOFILE, &whole);
    const struct rlimit few = {.rlim_cur = (rlim_t)(lowest + failFrom), .rlim_max = whole.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    Rebuild();
    setrlimit(RLIMIT_NOFILE, &whole);
    allocations = 4;
}

/* Walks every column, with a GET of each instance. */
static void RequestEveryInstance(void) {
    for (int i = 0; i < columnCount; ++i) {
        if (!IsScalar(&columns[i])) {
            oid name[MAX_OID_LEN];
            size_t length = columns[i].namelen, valueLength;
            memcpy(name, columns[i].name, length * sizeof(oid));
            counting = 1;
            while (Next(&columns[i], name, &length, &valueLength) != NULL &&
                   Call(&columns[i], name, &length, 1, &valueLength) != NULL) {
            }
            counting = 0;
        }
    }
}

static void RequestEveryScalar(void) {
    for (int i = 0; i < scalarCount; ++i) {
        Request(scalarColumns[i]);
    }
}

static struct Dump whole, found, left;

static int OpenDescriptors(void) {
    int open = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
        open += fcntl(descriptor, F_GETFD) != -1;
    }
    return open;
}

/* Null: fine; else what is wrong. */
static const char* Check(int scalars) {
    warnings = 0;
    DumpAll(&found, scalars);
    return strcmp(found.text, whole.text) == 0 ? NULL : "the values are not whole again";
}

int main(int argc, char** argv) {
    if (argc < 8) {
        return 2;
    }
    const int scalars = strcmp(argv[2], "scalars") == 0;
    void (*const scenario)(void) = scalars                               ? RequestEveryScalar
                                   : strcmp(argv[2], "request") == 0     ? RequestEveryInstance
                                   : strcmp(argv[2], "descriptors") == 0 ? RebuildWithoutDescriptors
                                                                         : Rebuild;
    failOn = strcmp(argv[3], "on") == 0;
    const long first = atol(argv[4]), step = atol(argv[5]);

    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    snmp_enable_calllog();
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, TakeLogLine, NULL);
    void* const module = init_agent("starved") == 0 ? dlopen(argv[1], RTLD_NOW) : NULL;
    void (*const load)(void) = module != NULL ? (void (*)(void))dlsym(module, "init_SNMPKelv") : NULL;
    if (load == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    load();
    FindColumns();
    tableColumn = FindColumn(argv[6]);
    for (int i = 7; i < argc; ++i) {
        scalarColumns[scalarCount++] = FindColumn(argv[i]);
    }
    if (!scalars) {
        /* The scalars are left unread: the module keeps them once they are. */
        Rebuild();
        DumpAll(&whole, 0);
    } else {
        const pid_t reader = fork();
        if (reader == 0) {
            RequestEveryScalar();
            DumpAll(&whole, 1);
            FILE* const file = fopen("whole", "w");
            fputs(whole.text, file);
            fclose(file);
            _exit(0);
        }
        waitpid(reader, NULL, 0);
        FILE* const file = fopen("whole", "r");
        whole.length = fread(whole.text, 1, sizeof whole.text - 1, file);
        fclose(file);
    }
    if (whole.text[0] == '\0') {
        fprintf(stderr, "no rows: %s\n", lastWarning);
        return 2;
    }
    warnings = 0;

    long tried = 0, failed = 0, total = 0;
    for (long n = first;; n += step) {
        int channel[2];
        if (pipe(channel) != 0) {
            return 2;
        }
        const pid_t child = fork();
        if (child == 0) {
            const int open = OpenDescriptors();
            allocations = 0;
            failFrom = n;
            Clear(&given);
            scenario();
            const long made = allocations;
            failFrom = -1;
            const int logged = warnings;
            const char* wrong = NULL;
            if (!scalars) {
                /* What the failure left, before another rebuild may hide it. */
                DumpAll(&left, 0);
                if (strcmp(left.text, whole.text) != 0 && logged == 0 && !(failOn && n < made)) {
                    wrong = "rows are missing without a line in the log";
                }
                Rebuild();
                if (Check(0) != NULL) {
                    Rebuild();
                    Rebuild();
                }
            } else {
                memcpy(&left, &given, sizeof left);
                RequestEveryScalar();
                Clear(&given);
                RequestEveryScalar();
                if (strcmp(left.text, given.text) != 0 && logged == 0 && !(failOn && n < made)) {
                    wrong = "a value is missing without a line in the log";
                }
            }
            const char* const after = Check(scalars);
            wrong = after != NULL               ? after
                    : OpenDescriptors() != open ? "a descriptor is left open, or one too many is closed"
                                                : wrong;
            char text[600];
            const int length = snprintf(text, sizeof text, "%ld %s", made, wrong != NULL ? wrong : "");
            if (write(channel[1], text, (size_t)length) != length) {
                _exit(1);
            }
            if (wrong != NULL && getenv("STARVED_SHOW") != NULL) {
                fprintf(stderr, "%s\n--- then\n%s\n--- instead of\n%s\n--- %s\n", left.text, found.text,
                        whole.text, lastWarning);
            }
            _exit(0);
        }
        close(channel[1]);
        char text[600] = "";
        ssize_t length = 0, got;
        while ((got = read(channel[0], text + length, sizeof text - 1 - (size_t)length)) > 0) {
            length += got;
        }
        close(channel[0]);
        int status = 0;
        waitpid(child, &status, 0);
        char* end = text;
        const long made = strtol(text, &end, 10);
        ++tried;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || length == 0) {
            printf("allocation %ld: %s %d\n", n, WIFSIGNALED(status) ? "killed by signal" : "ended with",
                   WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
            ++failed;
            continue;
        }
        if (end[0] == ' ' && end[1] != '\0') {
            printf("allocation %ld:%s\n", n, end);
            ++failed;
        }
        if (made <= n) {
            total = made;
            break;
        }
        fflush(stdout);
    }
    printf("%ld allocations, %ld tried, %ld failed\n", total, tried, failed);
    return failed != 0;
}
