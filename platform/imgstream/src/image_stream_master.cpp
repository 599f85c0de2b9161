// placeholder: the substitute is being written
