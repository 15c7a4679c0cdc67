/**
 * @file
 * @brief liblumora-api: the client library of the television's context
 * service.
 *
 * Include this one header. From C it declares the plain functions, records and
 * enumerations (lumora-c.h) and the in-process publisher (lumora-dipc.h); from
 * C++ also the classes ContextAutoLock, ContextData, DBusClient,
 * LMFServiceAPI, ILumoraAPI and LumoraAPI.
 */
#ifndef LUMORA_API_H
#define LUMORA_API_H

#include <lumora/lumora-c.h>
#include <lumora/lumora-dipc.h>

#ifdef __cplusplus
#include <lumora/ContextAutoLock.h>
#include <lumora/ContextData.h>
#include <lumora/DBusClient.h>
#include <lumora/LMFServiceAPI.h>
#include <lumora/LumoraAPI.h>
#endif

#endif /* LUMORA_API_H */
