#include <nx/stream/CNxConnection.h>

void CNxConnectionHolder::Reset(CNxAutoPtr<CNxConnection> connection) {
    std::swap(m_connection, connection);
    if (connection) {
        connection->Abandon();
    }
}

void INxConnectionSink::OnEnd(CNxConnection& connection) {
    connection.CloseWhenSent();
}

void INxConnectionSink::OnStop(CNxConnection& connection) {
    connection.CloseWhenSent();
}
