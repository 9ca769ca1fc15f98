/*
 * Host stand-in for bionic's <sys/system_properties.h>: <cutils/properties.h> includes it for the
 * two size limits below. Values are bionic's.
 */
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
