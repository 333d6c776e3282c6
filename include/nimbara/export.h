/* Export and linkage macros shared by every public header. */
#ifndef NIMBARA_EXPORT_H
#define NIMBARA_EXPORT_H

#if defined(_WIN32)
#define NIMBARA_API __declspec(dllexport)
#else
#define NIMBARA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define NIMBARA_BEGIN_C extern "C" {
#define NIMBARA_END_C }
#else
#define NIMBARA_BEGIN_C
#define NIMBARA_END_C
#endif

#endif
