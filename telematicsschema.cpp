// Kept apart from the run loop: the generated enum NO_DATA collides with the macro of the
// same name from <netdb.h>, which the Thrift socket headers pull in.
#include "telematics.engine.pb.h"
#include "telematicsloop.h"

void registerTelematicsSchema() {
    GOOGLE_PROTOBUF_VERIFY_VERSION;
    // Touching the descriptor links the generated code in and builds its pool entries.
    (void)telematics::engine::Event::descriptor();
}
