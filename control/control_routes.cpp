#include "control/control_routes.h"

#include "common/return_codes.h"
#include "common/tokens.h"
#include "control/pre_image.h"
#include "control/tr_communicate.h"

namespace {

// {URI file name, handler}
const ControlPort_Route kRoutes[] = {
    {"/ptippreimg.cgi", PreImage_Protocol::Handle},
    {"/trcom.cgi", TrCommunicate_Protocol::Handle},
};

}  // namespace

const ControlPort_Route* ControlPort_FindRoute(const OneToken_Class& fileName)
{
    for (const ControlPort_Route& route : kRoutes) {
        if (fileName.Compare(route.path) == SUCCESS)
            return &route;
    }
    return nullptr;
}
