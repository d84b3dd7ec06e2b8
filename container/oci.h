/*
 * oci.h: what the bundle says of a container that an OCI runtime was started with.
 */
#ifndef CONTAINER_OCI_H
#define CONTAINER_OCI_H

#include "details.h"

namespace container
{

/* A bundle's config.json: fills in what is not known yet. */
void take_bundle(const Json &config, Details &out);

}  // namespace container

#endif
