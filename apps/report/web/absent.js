// Stands for packages of the viewer that these pages have no use for: Zarr volumes, their codecs.
export {}
