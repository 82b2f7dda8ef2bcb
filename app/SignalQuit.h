#pragma once

/**
 * @brief Makes SIGTERM, SIGINT and SIGHUP end the event loop the ordinary way, so that
 * everything that runs on quitting (saving the queue) runs. Call once, after the
 * application object exists.
 */
void quitOnTerminationSignals();
