include $(sort $(wildcard $(BR2_EXTERNAL_PELMAR_PATH)/package/*/*.mk))
