"""What the component and end-to-end tests are written with: namespaces, the daemons, collectors, decoders."""
